#include "Launcher.h"
#include "log/StandardStreams.h"

int main(int argc, char** argv) {
    GpioLog::reserveStandardStreams();
    try {
        // Never deleted: threads of clients may still use what it built while the process ends.
        static auto* const launcher = new Launcher(argc, argv);
        return Launcher::isHelpEnabled() ? 0 : launcher->launch();
    } catch (LauncherException& problem) {
        Launcher::reportUnusable(problem);
        return 0;
    }
}
