// Whether a process that leads a session without a terminal, as a daemon does, gets one by what it opens.
#pragma once

#include "foundation/UniqueFd.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

// A terminal of the test's own.
class PseudoTerminal {
public:
    PseudoTerminal() : m_master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        char name[64];
        if (!m_master.valid() || ::grantpt(m_master.get()) != 0 || ::unlockpt(m_master.get()) != 0 ||
            ::ptsname_r(m_master.get(), name, sizeof name) != 0)
            throw std::runtime_error("no pseudo terminal");
        m_name = name;
    }

    // The path to open.
    [[nodiscard]] const std::string& name() const noexcept { return m_name; }
    // Does what its keyboard would; whether it could.
    [[nodiscard]] bool type(std::string_view keys) const {
        return ::write(m_master.get(), keys.data(), keys.size()) == static_cast<ssize_t>(keys.size());
    }

private:
    kestrel::UniqueFd m_master;
    std::string m_name;
};

// tty_nr of this process (proc(5)): 0 without a terminal.
inline int ownTerminal() {
    std::ostringstream text;
    text << std::ifstream("/proc/self/stat").rdbuf();
    const std::string line = std::move(text).str();
    // "pid (name) state parent group session tty_nr ...": the name may itself hold blanks and brackets.
    std::istringstream rest(line.substr(line.rfind(')') + 1));
    std::string state;
    long parent = 0, group = 0, session = 0, terminal = -1;
    rest >> state >> parent >> group >> session >> terminal;
    return static_cast<int>(terminal);
}

// 1 when a child process that leads a session of its own has a terminal after it did that, 0 when it has
// none, -1 when that cannot be told. To be called while the test has one thread.
template <typename Action>
int terminalAfter(Action&& action) {
    const pid_t child = ::fork();
    if (child == 0) {
        if (::setsid() < 0 || ownTerminal() != 0)
            ::_exit(2);
        action();
        ::_exit(ownTerminal() == 0 ? 0 : 1);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) > 1)
        return -1;
    return WEXITSTATUS(status);
}
