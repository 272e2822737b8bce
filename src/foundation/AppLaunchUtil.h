// Starting external programs.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kestrel {

// The text as one word of a command line: in double quotes where it has a blank, at which the line would be
// split. A text without one stays as it is.
[[nodiscard]] std::string commandLineWord(std::string_view text);

// The owned, null-terminated argument vector of one program.
class ArgumentVector {
public:
    // Splits a command line at blanks, double-quoted stretches kept whole without their quotes: at most
    // maxArguments arguments of at most argumentCapacity - 1 characters, the rest is dropped.
    explicit ArgumentVector(std::string_view commandLine);

    // Takes the arguments as they are, without any bound.
    explicit ArgumentVector(std::vector<std::string> arguments);

    ArgumentVector(ArgumentVector&&) noexcept = default;
    ArgumentVector& operator=(ArgumentVector&&) noexcept = default;
    ArgumentVector(const ArgumentVector&) = delete;
    ArgumentVector& operator=(const ArgumentVector&) = delete;

    // For execvp and runCmd; valid as long as this object.
    [[nodiscard]] char** argv() noexcept { return m_pointers.data(); }

    // The program, null when there are no arguments.
    [[nodiscard]] const char* file() const noexcept {
        return m_pointers.empty() ? nullptr : m_pointers.front();
    }

    // How many there are, the program among them.
    [[nodiscard]] std::size_t count() const noexcept { return m_arguments.size(); }
    // All of them in order.
    [[nodiscard]] const std::vector<std::string>& arguments() const noexcept { return m_arguments; }

    // Whether the command line was within both bounds, so that nothing was cut.
    [[nodiscard]] bool complete() const noexcept { return m_complete; }

private:
    void point();

    std::vector<std::string> m_arguments;
    std::vector<char*> m_pointers;
    bool m_complete = true;
};

} // namespace kestrel

// Runs external programs.
class AppLaunchUtil {
public:
    // Starts file, searched on the path, with the null-terminated argv. The child has default signal
    // dispositions, an empty signal mask, only descriptors 0 to 2 and a process group of its own. Returns its
    // process id with err 0; a program that cannot be executed, a null or empty file among them, is a child
    // that exits with 255. A null argv is file alone. Returns -1 with errno in err when no child could be
    // made.
    static int runCmd(const char* file, char** argv, int& err) noexcept;

    // The same with an owned argument vector, whose first argument is the program.
    static int runCmd(kestrel::ArgumentVector& arguments, int& err) noexcept;

    // The same, and why the child could not execute the program in execError: 0 when it runs, and where the
    // system has no descriptors left to ask with.
    static int runCmd(kestrel::ArgumentVector& arguments, int& err, int& execError) noexcept;

    // Runs a command line and waits at most timeoutSecs seconds for its end, or until *abort (may be null;
    // read atomically) is seen. Returns 0 when it ended or was stopped, with its exit code in *exitCode (may
    // be null; 0 when it was ended by a signal or stopped); -1 when it could not be started; -2 when it is
    // still running; -3 when it has vanished without being reaped. The program is never ended from here.
    static int LaunchApplication(char* cmdLine, int timeoutSecs, bool* abort, int* exitCode);
};
