// Keeps the preloading from reaching programs that this process starts.

#include <cstdlib>
#include <sstream>
#include <string>

#include <dlfcn.h>

namespace {

std::string withoutThisLibrary(const std::string& list) {
    std::string kept;
    std::istringstream entries(list);
    for (std::string entry; std::getline(entries, entry, ':');) {
        if (!entry.ends_with("libvirtual-usb.so")) {
            kept += (kept.empty() ? "" : ":") + entry;
        }
    }
    return kept;
}

/// Wrappers such as timeout or strace pass it on to the program that they run.
bool isUsbProgram() {
    return ::dlsym(RTLD_DEFAULT, "libusb_init") != nullptr;
}

__attribute__((constructor)) void stopInheritance() {
    const char* list = std::getenv("LD_PRELOAD");
    if (list == nullptr || !isUsbProgram()) {
        return;
    }
    const std::string kept = withoutThisLibrary(list);
    if (kept.empty()) {
        unsetenv("LD_PRELOAD");
    } else {
        setenv("LD_PRELOAD", kept.c_str(), 1);
    }
}

} // namespace
