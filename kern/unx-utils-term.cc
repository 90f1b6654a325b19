// unx-utils-term.cc: terminal echo control.
#include <termios.h>

#include <cerrno>

#include "exceptions.h"
#include "unx-utils.h"
#include "utilities.h"

namespace {

struct termios settings_of(int fd) {
    struct termios t;
    while (tcgetattr(fd, &t) != 0)
        if (errno != EINTR)
            QVL_THROW(api_exception, "unable to read the settings of terminal %d because of %s", fd,
                      get_last_error().c_str());
    return t;
}

}  // namespace

bool get_input_echo(int fd) { return (settings_of(fd).c_lflag & ECHO) != 0; }

bool set_input_echo(bool on, int fd) {
    struct termios t = settings_of(fd);
    bool const was = (t.c_lflag & ECHO) != 0;
    if (was == on) return was;
    t.c_lflag = on ? t.c_lflag | ECHO : t.c_lflag & ~static_cast<tcflag_t>(ECHO);
    while (tcsetattr(fd, TCSANOW, &t) != 0)
        if (errno != EINTR)
            QVL_THROW(api_exception, "unable to set the echo of terminal %d because of %s", fd,
                      get_last_error().c_str());
    return was;
}
