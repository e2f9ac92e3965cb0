#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "board/Board.h"
#include "board/UsbHost.h"
#include "protocol/BusProtocol.h"

/// Serves the preload libraries: requests, opened handles, and hot-plug notices.
class BusServer : public UsbHost {
public:
    /// Listens in `directory`; throws std::system_error when it cannot.
    BusServer(Board& board, const std::string& directory);
    ~BusServer() override;

    /// Handles that programs hold open, those of a lost device included.
    std::size_t getOpenHandles() const;

    void completed(std::uint32_t handle, std::uint64_t urb, int status, std::uint32_t actualLength,
                   std::span<const std::uint8_t> data) override;
    void deviceAdded(std::uint32_t number) override;
    void deviceRemoved(std::uint32_t number) override;

private:
    using Message = std::vector<std::uint8_t>;

    struct Session {
        bool isMonitor = false;
        bool isLost = false; ///< its device is gone; only its end is awaited
        std::optional<std::uint32_t> handle;
        std::deque<Message> outbox;
    };

    void acceptSession();
    void sessionReady(int descriptor, short events);
    bool receive(int descriptor);
    void handle(int descriptor, const virtualusb::Request& request, std::string_view payload);
    void handleOpen(int descriptor, std::uint32_t number);
    void handleAttribute(int descriptor, const std::string& name);
    void closeHandle(std::uint32_t handle);
    void submit(const virtualusb::Request& request, std::string_view payload);
    void reply(int descriptor, int result, std::string_view payload = {});
    void send(int descriptor, Message message);
    void flush(int descriptor);
    void notify(bool added, std::uint32_t number);
    void end(int descriptor);
    void watch(int descriptor, bool wantsToSend);

    Board& board;
    UsbDevice& device;
    std::string path;
    int listener;
    std::map<int, Session> sessions;                ///< by descriptor
    std::map<std::uint32_t, int> handleDescriptors; ///< by handle
    std::uint32_t lastHandle = 0;
    std::vector<char> buffer;
};
