// Terminal echo on a pseudo-terminal: the flag as the terminal reports it, and what the terminal echoes.
#include "unx-utils.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

#include "exceptions.h"

namespace {

// Reads fd up to and including the first line feed.
std::string read_line(int fd) {
    std::string got;
    char c;
    while (got.find('\n') == std::string::npos && read(fd, &c, 1) == 1) got += c;
    return got;
}

TEST(Terminal, EchoOnAPseudoTerminal) {
    int const master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(master, 0);
    ASSERT_TRUE(grantpt(master) == 0 && unlockpt(master) == 0);
    int const slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(slave, 0);

    EXPECT_TRUE(get_input_echo(slave));  // as a new terminal starts
    EXPECT_TRUE(set_input_echo(false, slave));
    struct termios t;
    ASSERT_EQ(tcgetattr(slave, &t), 0);
    EXPECT_TRUE(!get_input_echo(slave) && !(t.c_lflag & ECHO));
    EXPECT_FALSE(set_input_echo(false, slave));
    ASSERT_EQ(write(master, "secret\n", 7), 7);
    EXPECT_EQ(read_line(slave), "secret\n");
    // Echo back on: the first text the terminal echoes is the next line, not the secret.
    EXPECT_FALSE(set_input_echo(true, slave));
    ASSERT_EQ(write(master, "shown\n", 6), 6);
    EXPECT_EQ(read_line(slave), "shown\n");
    EXPECT_EQ(read_line(master), "shown\r\n");
    EXPECT_TRUE(get_input_echo(slave));

    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    std::string const tty = "because of Inappropriate ioctl for device (errno=25)";
    struct { int fd; bool set; std::string why; } const bad[] = {
        {p[0], false, tty}, {p[1], true, tty}, {-1, false, "because of Bad file descriptor (errno=9)"}};
    for (auto const& b : bad) {
        try {
            b.set ? set_input_echo(false, b.fd) : get_input_echo(b.fd);
            ADD_FAILURE() << b.fd;
        } catch (api_exception_shell_t const& e) {
            EXPECT_EQ(e.what(), "unable to read the settings of terminal " + std::to_string(b.fd) + " " + b.why);
        }
    }
    for (int fd : {p[0], p[1], slave, master}) close(fd);
}

}  // namespace
