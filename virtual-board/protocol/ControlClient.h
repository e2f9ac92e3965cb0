#pragma once

#include <string>

/// Sends one command to a running board and returns its answer line without the line end; throws
/// std::system_error when there is no board.
std::string sendControlCommand(const std::string& directory, const std::string& command);
