#include "load/Poller.h"

#include <array>
#include <cerrno>
#include <system_error>

#include <sys/epoll.h>
#include <unistd.h>

Poller::Poller() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll_ < 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_create1");
    }
}

Poller::~Poller() {
    ::close(epoll_);
}

void Poller::watch(int descriptor, std::size_t index) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = index;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "epoll_ctl");
    }
}

std::size_t Poller::poll(int milliseconds, const std::function<void(std::size_t)>& ready) {
    std::array<epoll_event, 256> events;
    const int count =
        epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), milliseconds);
    for (int index = 0; index < count; ++index) {
        ready(events.at(static_cast<std::size_t>(index)).data.u64);
    }
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}
