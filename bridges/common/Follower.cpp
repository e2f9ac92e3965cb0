#include "Follower.h"

#include <utility>

namespace bridge {

Follower::Follower(gpioclient::PinWatcher::Config config, std::chrono::milliseconds pause,
                   std::function<void()> step)
    : pause_(pause), step_(std::move(step)), tell_(config.onConnectionNews),
      watcher_(complete(std::move(config))), thread_([this] { run(); }) {}

Follower::~Follower() {
    stop();
    thread_.join();
}

gpioclient::PinWatcher::Config Follower::complete(gpioclient::PinWatcher::Config config) const {
    config.options.isCancelled = [this] { return isStopping(); };
    config.reconnect = true;
    config.startDisconnected = true;
    config.followDirections = true;
    return config;
}

void Follower::stop() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    stopped_.notify_all();
    watcher_.wake();
}

void Follower::run() {
    while (!stopping_) {
        try {
            step_();
        } catch (const gpioclient::Error& error) {
            if (!stopping_) {
                tell_(error.what());
            }
            std::unique_lock lock(mutex_);
            stopped_.wait_for(lock, pause_, [this] { return isStopping(); });
        }
    }
}

} // namespace bridge
