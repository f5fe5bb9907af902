// Whether the looper has handled its due messages (see LooperWatch.h).

#include "LooperWatch.h"

#include <dirent.h>
#include <sys/syscall.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace talsim {

namespace {

using Clock = std::chrono::steady_clock;

// The looper's poll timeout is rounded up to whole milliseconds: a message
// due at the deadline is handled at most this much later than it.
constexpr auto kPollRounding = std::chrono::milliseconds(3);
constexpr auto kRecheck = std::chrono::microseconds(500);

std::string ReadSmall(const std::string& path)
{
    FILE* f = fopen(path.c_str(), "re");
    if (f == nullptr) {
        return "";
    }
    char buf[256];
    const size_t n = fread(buf, 1, sizeof(buf) - 1, f);
    fclose(f);
    buf[n] = '\0';
    return buf;
}

bool IsPollCall(long number)
{
#ifdef SYS_epoll_wait
    if (number == SYS_epoll_wait) {
        return true;
    }
#endif
#ifdef SYS_epoll_pwait2
    if (number == SYS_epoll_pwait2) {
        return true;
    }
#endif
    return number == SYS_epoll_pwait;
}

// A task sleeping (state S) inside an epoll wait. A task that a timer has
// just woken is runnable (R) even before it gets a CPU, so it never counts.
bool TaskPolling(const std::string& task)
{
    const std::string stat = ReadSmall(task + "/stat");
    const size_t close = stat.rfind(')'); // the command name may hold spaces
    if (close == std::string::npos || close + 2 >= stat.size() || stat[close + 2] != 'S') {
        return false;
    }
    const std::string call = ReadSmall(task + "/syscall");
    if (call.empty() || !isdigit(static_cast<unsigned char>(call[0]))) {
        return false; // "running", or not readable
    }
    return IsPollCall(strtol(call.c_str(), nullptr, 10));
}

} // namespace

bool LooperPolling()
{
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) {
        return false;
    }
    bool polling = false;
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.' && TaskPolling(std::string("/proc/self/task/") + entry->d_name)) {
            polling = true;
            break;
        }
    }
    closedir(dir);
    return polling;
}

bool WaitForLooperAfter(Clock::time_point deadline, Clock::time_point limit)
{
    std::this_thread::sleep_until(deadline + kPollRounding);
    while (!LooperPolling()) {
        if (Clock::now() >= limit) {
            return false;
        }
        std::this_thread::sleep_for(kRecheck);
    }
    return true;
}

} // namespace talsim
