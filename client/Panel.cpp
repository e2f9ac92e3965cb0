#include "Panel.h"

#include <algorithm>
#include <array>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>

#include <ncurses.h>
#include <term.h>
#include <termios.h>
#include <unistd.h>

#include "Arguments.h"
#include "LineFormat.h"
#include "StopSignals.h"
#include "UntilCancelled.h"

namespace {

using gpioclient::contains;
using gpioclient::PinEvent;
using gpioclient::PinMask;
using gpioclient::PinWatcher;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds PANEL_POLL_INTERVAL{200};
constexpr std::chrono::seconds HIGHLIGHT_TIME{2};
constexpr int CELL_WIDTH = 10;
constexpr int CELL_HEIGHT = 2;

enum Colour : short { HIGH_COLOUR = 1, CHANGED_COLOUR = 2, ALARM_COLOUR = 3 };

/// What brings the terminal back without ncurses, which no signal handler may call.
struct Restoration {
    termios modes{};
    std::string sequence;
};

Restoration restoration;

int appendToRestoration(int character) {
    restoration.sequence += static_cast<char>(character);
    return character;
}

void prepareRestoration() {
    restoration.sequence.clear();
    for (const char* capability : {"sgr0", "rmkx", "cnorm", "rmcup"}) {
        const char* sequence = tigetstr(capability);
        // Absent ones are a null pointer or -1.
        if (sequence != nullptr && reinterpret_cast<std::intptr_t>(sequence) != -1) {
            tputs(sequence, 1, appendToRestoration);
        }
    }
}

void restoreTerminal() {
    const std::string& sequence = restoration.sequence;
    static_cast<void>(!write(STDOUT_FILENO, sequence.data(), sequence.size()));
    tcsetattr(STDOUT_FILENO, TCSANOW, &restoration.modes);
}

/// The terminal in full-screen mode for as long as this lives.
class Screen {
public:
    Screen() {
        tcgetattr(STDOUT_FILENO, &restoration.modes);
        screen_ = newterm(nullptr, stdout, stdin);
        if (screen_ == nullptr) {
            throw UsageError("--panel does not know this terminal: set TERM");
        }
        set_term(screen_);
        prepareRestoration();
        StopSignals::onSuddenEnd(restoreTerminal);
        cbreak();
        noecho();
        curs_set(0);
        nodelay(stdscr, TRUE);
        keypad(stdscr, TRUE);
        if (has_colors()) {
            start_color();
            use_default_colors();
            init_pair(HIGH_COLOUR, COLOR_GREEN, -1);
            init_pair(CHANGED_COLOUR, COLOR_YELLOW, -1);
            init_pair(ALARM_COLOUR, COLOR_RED, -1);
        }
    }

    ~Screen() {
        endwin();
        StopSignals::onSuddenEnd(nullptr);
        delscreen(screen_);
    }

    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

private:
    SCREEN* screen_ = nullptr;
};

class Panel {
public:
    explicit Panel(PinWatcher::Config config)
        : server_(config.endpoint.toString()), watcher_(prepare(std::move(config))) {}

    void run() {
        const Screen screen; // Ends before the connection, which may take its time.
        isShown_ = true;
        untilCancelled([this] {
            while (!isToEnd()) {
                follow();
            }
        });
    }

private:
    /// Asked while the server is waited for too, so that the panel never stands still.
    bool isToEnd() {
        if (isShown_) {
            readKeys();
            draw();
        }
        return quit_ || StopSignals::requested();
    }

    void follow() {
        for (const PinEvent& event : watcher_.waitForEvents()) {
            changedAt_.at(event.pin) = steady_clock::now();
            lastEvent_ = localTimeText(event.time) + "  pin " + std::to_string(event.pin) + " " +
                         edgeText(event);
        }
    }

    PinWatcher::Config prepare(PinWatcher::Config config) {
        config.followDirections = true;
        config.pollInterval = config.pollInterval.value_or(PANEL_POLL_INTERVAL);
        config.onConnectionNews = [this](const std::string& news) { news_ = news; };
        config.options.isCancelled = [this] { return isToEnd(); };
        return config;
    }

    void readKeys() {
        for (int key = getch(); key != ERR; key = getch()) {
            quit_ = quit_ || key == 'q' || key == 'Q';
        }
    }

    void draw() {
        erase();
        row_ = 0;
        attron(A_BOLD);
        line(server_ + "  " + gpioclient::toString(watcher_.backEnd()) + " back end");
        attroff(A_BOLD);
        drawConnection();
        drawGroup("Inputs", watcher_.inputPins());
        drawGroup("Outputs", ~watcher_.inputPins());
        line("Last change: " + (lastEvent_.empty() ? "none yet" : lastEvent_));
        line("High is [*], low is [ ], not known is [?]; ! has just changed; q quits");
        refresh();
    }

    void drawConnection() {
        const attr_t alarm = watcher_.isConnected() ? 0 : COLOR_PAIR(ALARM_COLOUR);
        attron(alarm);
        line(watcher_.isConnected() ? "connected" : "not connected: " + news_);
        attroff(alarm);
        ++row_;
    }

    void drawGroup(const std::string& title, PinMask pins) {
        line(title);
        const int perRow = std::max(1, COLS / CELL_WIDTH);
        int column = 0;
        for (unsigned pin = 0; pin < watcher_.geometry().pinCount; ++pin) {
            if (!contains(pins, pin)) {
                continue;
            }
            if (column == perRow) {
                column = 0;
                row_ += 1;
            }
            drawPin(row_, column * CELL_WIDTH, pin);
            ++column;
        }
        row_ += CELL_HEIGHT;
    }

    void drawPin(int row, int column, unsigned pin) const {
        const bool known = watcher_.levels().at(pin).has_value();
        const bool high = watcher_.levels().isHigh(pin);
        const bool changed = changedAt_.at(pin) != steady_clock::time_point() &&
                             steady_clock::now() - changedAt_.at(pin) < HIGHLIGHT_TIME;
        attr_t attributes = high ? COLOR_PAIR(HIGH_COLOUR) | A_BOLD : A_NORMAL;
        if (changed) {
            attributes = COLOR_PAIR(CHANGED_COLOUR) | A_BOLD | A_REVERSE;
        }
        const char* level = !known ? "[?]" : (high ? "[*]" : "[ ]");
        attron(attributes);
        mvprintw(row, column, "%3u %s%s", pin, level, changed ? "!" : " ");
        attroff(attributes);
    }

    void line(const std::string& text) {
        mvaddnstr(row_, 0, text.c_str(), std::max(0, COLS));
        ++row_;
    }

    std::string server_;
    std::string news_;
    std::string lastEvent_;
    std::array<steady_clock::time_point, gpioclient::BOARD_GEOMETRY.pinCount> changedAt_{};
    int row_ = 0;
    bool isShown_ = false;
    bool quit_ = false;
    PinWatcher watcher_; ///< Last, since it asks isToEnd() while it is made.
};

} // namespace

void runPanel(PinWatcher::Config config) {
    if (isatty(STDOUT_FILENO) == 0 || isatty(STDIN_FILENO) == 0) {
        throw UsageError("--panel needs a terminal; without it, monitor prints lines");
    }
    static_cast<void>(std::setlocale(LC_ALL, ""));
    Panel(std::move(config)).run();
}
