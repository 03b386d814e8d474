// process.h: one edit as a whole process, by the programs that are built of edit.cpp.
#ifndef BENCH_PROCESS_H
#define BENCH_PROCESS_H

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "timing.h"

extern char** environ;

/// The microseconds that a program of `folder` takes with `path` for an argument. Our library is
/// named to the loader, so that it is found without a search, as an installed one and the peers'.
inline double editTime(const std::string& folder, const char* name, const std::string& path) {
    std::string program = folder + "/" + name, argument = path;
    std::string library = "LD_PRELOAD=" + folder + "/../libzbase.so.6";
    std::vector<char*> variables;
    for (char** variable = environ; *variable != nullptr; ++variable)
        variables.push_back(*variable);
    if (std::string(name) == "edit_zbase")
        variables.push_back(&library[0]);
    variables.push_back(nullptr);
    char* arguments[] = {&program[0], &argument[0], nullptr};
    const double start = now();
    pid_t pid;
    int status;
    if (posix_spawn(&pid, program.c_str(), nullptr, nullptr, arguments, variables.data()) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0)
        abort();
    return (now() - start) * 1e6;
}

#endif
