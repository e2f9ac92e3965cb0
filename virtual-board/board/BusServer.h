#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "board/Board.h"
#include "board/Listener.h"
#include "protocol/BusProtocol.h"

/// Serves the preload libraries: requests, opened handles, and hot-plug notices. A handle is the
/// number of the descriptor that it came on.
class BusServer {
public:
    /// Listens in `directory`; throws std::system_error when it cannot.
    BusServer(Board& board, const std::string& directory);
    ~BusServer();

private:
    /// What a connection is for; a lost handle only waits for its end.
    enum class Session { Requests, Monitor, Handle, LostHandle };

    void accept(int descriptor);
    void receive(int descriptor);
    void handle(int descriptor, const virtualusb::Request& request, std::string_view payload);
    void handleOpen(int descriptor, std::uint32_t number);
    void handleOfHandle(int descriptor, const virtualusb::Request& request);
    void submit(const virtualusb::Request& request, std::string_view payload);
    void completed(const Urb& urb, int status, std::size_t actualLength, UsbDevice::Bytes data);
    void changed(bool added);
    void end(int descriptor);
    bool isSession(std::uint32_t handle, Session kind) const;
    static void reply(int descriptor, int result, std::string_view payload = {});

    EventLoop& loop_;
    UsbDevice& device_;
    std::uint64_t& handles_;          ///< that programs hold open, those of a lost device included
    std::map<int, Session> sessions_; ///< by descriptor
    std::vector<char> buffer_;
    Listener listener_;
};
