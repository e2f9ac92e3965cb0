#include <system_error>
#include <utility>

#include <gpio-client/ChangeWatcher.h>

namespace gpioclient {

ChangeWatcher::ChangeWatcher(const Endpoint& endpoint, const Options& options, OnChange onChange,
                             OnError onError)
    : client_(endpoint, options), onChange_(std::move(onChange)), onError_(std::move(onError)) {
    if (!client_.sendsNotices()) {
        throw Error(Cause::Unsupported, "the test back end sends no change notices; read the "
                                        "pins at intervals instead");
    }
    client_.listen();
    try {
        thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
    } catch (const std::system_error& error) {
        throw Error(Cause::OutOfResources, std::string("cannot start a thread: ") + error.what());
    }
}

ChangeWatcher::~ChangeWatcher() = default;

void ChangeWatcher::run(const std::stop_token& stop) {
    const std::stop_callback interrupt(stop, [this] { client_.interrupt(); });
    try {
        while (!stop.stop_requested()) {
            if (const auto notice = client_.waitForChange(std::chrono::hours(1))) {
                onChange_(*notice);
            }
        }
    } catch (const Error& error) {
        if (onError_) {
            onError_(error);
        }
    }
}

} // namespace gpioclient
