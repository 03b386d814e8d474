#include <poll.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>

#include "zstz.h"

namespace {

struct CloseWatch {
    void operator()(ZPROP_watch_handle* watch) const { zstzPropWatch_close(watch); }
};

// What is done about one change.
struct Action {
    const char* file;     // or the name of a layered configuration
    const char* command;  // null: the change is printed
    bool asJSON;
};

}  // namespace

static void act(void* data, const char* stanza, const char* key, int change) {
    static const char* const kWords[] = {"added", "deleted", "modified"};
    const Action& action = *static_cast<const Action*>(data);
    if (action.asJSON) {
        const std::string what = key == nullptr ? "" : ", \"key\": " + jsonOf(key);
        printf("{\"change\": \"%s\", \"stanza\": %s%s}\n", kWords[change], jsonOf(stanza).c_str(),
               what.c_str());
        return;
    }
    if (action.command == nullptr) {
        printf("%s [%s]%s%s\n", kWords[change], stanza, key == nullptr ? "" : " ",
               key == nullptr ? "" : key);
        return;
    }
    setenv("ZSTZ_FILE", action.file, 1);
    setenv("ZSTZ_CHANGE", kWords[change], 1);
    setenv("ZSTZ_STANZA", stanza, 1);
    setenv("ZSTZ_KEY", key == nullptr ? "" : key, 1);
    const int status = system(action.command);
    if (status == -1)
        complain(fileError, "%s: %s", action.command, strerror(errno));
    else if (WIFSIGNALED(status))
        complain(fileError, "%s was stopped by a signal", action.command);
}

Exit watch(const Words& words, const Options& options) {
    const char* file = words[0].c_str();
    Action action = {options.isLayers(file) ? options.layers.name.c_str() : file,
                     words.size() > 1 ? words[1].c_str() : nullptr, options.json};
    if (options.json && action.command != nullptr)
        return complain(usage, "--json prints changes, and goes without COMMAND");
    if (isStandardInput(file))
        return complain(usage, "standard input can't be watched");
    Handle handle;
    if (const Exit failed = openFile(file, options, handle))
        return failed;
    ZPROP_watch_handle* opened = nullptr;
    if (zstzPropWatch_open(handle.get(), &opened) != ZPROP_OK)
        return reportLastError(file);
    const std::unique_ptr<ZPROP_watch_handle, CloseWatch> watched(opened);
    for (;;) {
        int error = 0;
        zstzPropWatch_process(watched.get(), act, &action, &error);
        if (error != ZPROP_OK)
            reportLastError(file);  // the next content may be better
        if (fflush(stdout) != 0)
            return fileError;
        struct pollfd ready = {zstzPropWatch_fd(watched.get()), POLLIN, 0};
        if (poll(&ready, 1, -1) < 0 && errno != EINTR)
            return complain(fileError, "poll: %s", strerror(errno));
    }
}
