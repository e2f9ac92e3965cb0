#pragma once

#include <string_view>

/// Checks of the fuzz targets: a difference from the model is a finding like a crash.
namespace fuzz {

/// Reports the difference and aborts unless `actual` equals `expected`; `what` names the value.
void expectEqual(std::string_view what, std::string_view expected, std::string_view actual);
void expectEqual(std::string_view what, long expected, long actual);

/// Reports `what` and aborts unless it holds.
void expectTrue(std::string_view what, bool holds);

} // namespace fuzz
