#include "screen.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>

namespace quarnctl {

namespace {

constexpr size_t kWidthWithout = 80;
constexpr size_t kHeightWithout = 24;

// Switch to the terminal's second screen and hide the cursor; and back.
constexpr const char* kEnter = "\x1b[?1049h\x1b[?25l";
constexpr const char* kLeave = "\x1b[?25h\x1b[?1049l";
constexpr const char* kHome = "\x1b[H";
constexpr const char* kClearLine = "\x1b[K";
constexpr const char* kClearBelow = "\x1b[J";

std::atomic<int> signal_pipe{-1};

void Note(int signal) {
    const int error = errno;
    const auto byte = static_cast<char>(signal);
    [[maybe_unused]] const ssize_t put = write(signal_pipe, &byte, 1);
    errno = error;
}

// A signal that is ignored already stays ignored: nohup relies on it.
void Catch(int signal) {
    struct sigaction action = {};
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) return;
    action = {};
    sigemptyset(&action.sa_mask);
    action.sa_handler = Note;
    sigaction(signal, &action, nullptr);
}

winsize Size() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) size = {};
    if (size.ws_col == 0) size.ws_col = kWidthWithout;
    if (size.ws_row == 0) size.ws_row = kHeightWithout;
    return size;
}

// Returns the first `width` characters of a UTF-8 text.
std::string Fit(const std::string& text, size_t width) {
    std::string fitting;
    size_t columns = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool continues = (byte & 0xC0) == 0x80;
        if (!continues && ++columns > width) break;
        fitting += c;
    }
    return fitting;
}

}  // namespace

std::string Printable(std::string text) {
    for (size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto before = static_cast<unsigned char>(i == 0 ? '\0' : text[i - 1]);
        // U+0080 to U+009F, in UTF-8 or as one byte. Elsewhere these bytes are parts of letters.
        const bool is_c1 = byte >= 0x80 && byte < 0xA0 && (before < 0x80 || before == 0xC2);
        if (byte >= 0x20 && byte != 0x7F && !is_c1) continue;
        if (is_c1 && before == 0xC2) text[i - 1] = '?';
        text[i] = '?';
    }
    return text;
}

Screen::Screen(bool wanted) : terminal(wanted && isatty(STDOUT_FILENO) == 1) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) == 0) {
        signals = Descriptor(ends[0]);
        signal_pipe = ends[1];  // never closed: a signal may come at any time
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) Catch(signal);
        if (terminal) {
            Catch(SIGWINCH);
            Catch(SIGTSTP);
        }
    }
    Enter();
}

Screen::~Screen() { Leave(); }

void Screen::Enter() const {
    if (!terminal) return;
    fputs(kEnter, stdout);
    fflush(stdout);
}

void Screen::Leave() const {
    if (!terminal) return;
    fputs(kLeave, stdout);
    fflush(stdout);
}

size_t Screen::Width() const { return terminal ? Size().ws_col : kWidthWithout; }

void Screen::Draw(const std::vector<std::string>& lines) const {
    const winsize size = Size();
    std::string picture = kHome;
    // A line break behind the last row would move the screen up.
    for (size_t i = 0; i < lines.size() && i < size.ws_row; ++i) {
        if (i > 0) picture += "\r\n";
        picture += kClearLine + Fit(lines[i], size.ws_col);
    }
    picture += kClearBelow;
    fwrite(picture.data(), 1, picture.size(), stdout);
    fflush(stdout);
}

int Screen::TakeSignals() {
    int ending = 0;
    for (unsigned char byte; read(signals.get(), &byte, 1) == 1;) {
        if (byte == SIGTSTP) {
            Leave();
            kill(getpid(), SIGSTOP);
            Enter();
        } else if (byte != SIGWINCH) {
            ending = byte;
        }
    }
    return ending;
}

}  // namespace quarnctl
