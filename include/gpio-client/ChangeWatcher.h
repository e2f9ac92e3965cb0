#pragma once

#include <functional>
#include <stop_token>
#include <thread>

#include <gpio-client/Client.h>

namespace gpioclient {

/// Calls back for every change notice, on a thread and a connection of its own.
///
/// The callbacks run on that thread, one at a time; they must not destroy the watcher. A callback
/// should return soon: nothing is read meanwhile, and the server drops a client that has taken
/// nothing for 30 seconds. A host that vanishes is noticed after about 40 seconds. Exceptions
/// leaving a callback end the watching and reach `onError` if they are of type Error, and end
/// the program otherwise. `onError` is called at most once, as the last call.
class ChangeWatcher {
public:
    using OnChange = std::function<void(const ChangeNotice&)>;
    using OnError = std::function<void(const Error&)>;

    /// Connects and asks for notices before it returns. Throws Error; Unsupported when the back
    /// end sends no notices.
    ChangeWatcher(const Endpoint& endpoint, const Options& options, OnChange onChange,
                  OnError onError);

    /// Stops the thread and closes the connection.
    ~ChangeWatcher();

private:
    void run(const std::stop_token& stop);

    Client client_;
    OnChange onChange_;
    OnError onError_;
    std::jthread thread_; ///< Last: it uses all the others.
};

} // namespace gpioclient
