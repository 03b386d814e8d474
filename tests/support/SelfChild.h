// SelfChild.h: runs something in a process of its own; and one test of this very program in one,
// for what a process has only once: its locale, its first string, its default message service.
//
// Such a test is named DISABLED_..., so that it runs in children alone.
#ifndef TESTS_SUPPORT_SELF_CHILD_H
#define TESTS_SUPPORT_SELF_CHILD_H

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

/// Begins `action` in a child, which ends with what it gives. What it raises aborts the child.
inline pid_t startChild(const std::function<int()>& action) {
    const pid_t child = fork();
    if (child == 0)
        [&]() noexcept { _exit(action()); }();
    return child;
}

/// What a child has ended with; -1 if it was killed.
inline int endOf(pid_t child) {
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline int inChild(const std::function<int()>& action) { return endOf(startChild(action)); }

struct SelfChild {
    int status;          // as waitpid gives it
    std::string output;  // standard output and error

    bool passed() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
    bool aborted() const { return WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT; }
    /// Whether the child wrote this text.
    bool wrote(const std::string& text) const { return output.find(text) != std::string::npos; }
};

/// Runs the test "Suite.DISABLED_Name" with changes to the environment; null unsets.
inline SelfChild runSelf(const std::string& test,
                         const std::vector<std::pair<std::string, const char*>>& environment) {
    int ends[2];
    if (pipe(ends) != 0)
        return {-1, "pipe failed"};
    const pid_t child = startChild([&] {
        for (const auto& [name, value] : environment)
            value == nullptr ? unsetenv(name.c_str()) : setenv(name.c_str(), value, 1);
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]), close(ends[1]);
        const std::string filter = "--gtest_filter=" + test;
        return execl("/proc/self/exe", "child", "--gtest_also_run_disabled_tests", filter.c_str(),
                     static_cast<char*>(nullptr));
    });
    close(ends[1]);
    SelfChild result = {-1, ""};
    char buffer[4096];
    for (ssize_t n; (n = read(ends[0], buffer, sizeof buffer)) > 0;)
        result.output.append(buffer, static_cast<size_t>(n));
    close(ends[0]);
    waitpid(child, &result.status, 0);
    if (result.passed() && result.output.find("[  PASSED  ] 1 test.") == std::string::npos)
        result.status = -1;  // the filter found no test
    return result;
}

/// Runs it and expects that it passes.
inline void expectChildPasses(
    const std::string& test,
    const std::vector<std::pair<std::string, const char*>>& environment = {}) {
    const SelfChild child = runSelf(test, environment);
    EXPECT_TRUE(child.passed()) << test << "\n" << child.output;
}

/// The same in each kind of locale: ASCII, UTF-8, bytes that are characters, characters of bytes.
inline void expectChildPassesInEachLocale(const std::string& test) {
    for (const char* locale : {"C", "C.UTF-8", "en_US.ISO-8859-1", "ja_JP.EUC-JP"}) {
        SCOPED_TRACE(locale);
        expectChildPasses(test, {{"LC_ALL", locale}, {"QELDIR", "/tables"}});
    }
}

#endif
