// The host's event loop and tasks as applications meet them: timers, events from other threads
// and from another process, and tasks started, found and closed.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "moorglass.h"
#include "moorglass_host.h"

namespace {

using namespace std::chrono_literals;

// What the loop delivered, in order, and on which thread.
struct Seen {
    std::string what;
    std::thread::id thread;
};
std::mutex g_mutex;
std::vector<Seen> g_seen;
int g_stop_after = 0;  // events until the handler stops the loop; 0: never

void Note(const std::string& what) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_seen.push_back({what, std::this_thread::get_id()});
}

std::vector<std::string> SeenNames() {
    std::lock_guard<std::mutex> lock(g_mutex);
    std::vector<std::string> names;
    for (const Seen& seen : g_seen) names.push_back(seen.what);
    return names;
}

int Record(int type, int par1, int par2) {
    Note("event " + std::to_string(type) + " " + std::to_string(par1) + " " +
         std::to_string(par2));
    if (g_stop_after > 0 && --g_stop_after == 0) qvhost_stop_event_loop();
    return type + 1;
}

void NoteTimer(void* name) {
    Note(static_cast<const char*>(name));
}
void NotePlainTimer() {
    Note("plain");
}
void StopLoop(void*) {
    qvhost_stop_event_loop();
}

// Ends a run that went wrong instead of hanging the test.
void RunWithLimit(int limit_ms) {
    static char limit[] = "limit";
    SetHardTimerEx("limit", &StopLoop, limit, limit_ms);
    ASSERT_EQ(0, qvhost_run_event_loop(&Record));
    ClearTimerEx(&StopLoop, limit);
}

TEST(EventLoop, TimersFireOnceEachInDueOrderAndClearedOnesStaySilent) {
    static char a[] = "a", b[] = "b", c[] = "c", d[] = "d";
    qvhost_set_event_handler(&Record);
    SetHardTimerEx("", &NoteTimer, a, 60);
    SetWeakTimerEx("", &NoteTimer, b, 20);
    SetHardTimerEx("", &NoteTimer, c, 500);
    SetHardTimerEx("", &NoteTimer, c, 40);  // the same timer again: replaced, not doubled
    SetHardTimerEx("", &NoteTimer, d, 30);
    SetHardTimer("named", &NotePlainTimer, 50);
    ClearTimerEx(&NoteTimer, d);
    EXPECT_EQ(1, QueryTimerEx(&NoteTimer, a));
    EXPECT_EQ(0, QueryTimerEx(&NoteTimer, d));

    SetHardTimerEx("end", &StopLoop, nullptr, 150);
    RunWithLimit(5000);

    EXPECT_EQ((std::vector<std::string>{"b", "c", "plain", "a"}), SeenNames());
    EXPECT_EQ(0, QueryTimerEx(&NoteTimer, a));
    EXPECT_EQ(0, QueryTimerEx(&NoteTimer, c));
}

TEST(EventLoop, EventsFromOtherThreadsArriveOnTheLoopThreadInOrder) {
    qvhost_set_event_handler(&Record);
    // On the loop's own thread the handler is called at once, with its result handed back.
    EXPECT_EQ(8, SendEvent(&Record, 7, 0, 0));
    EXPECT_EQ(-1, SendEvent(nullptr, 7, 0, 0));
    g_seen.clear();

    constexpr int kEvents = 200;
    g_stop_after = kEvents;
    std::thread sender([] {
        for (int i = 0; i < kEvents; ++i) EXPECT_EQ(0, SendEvent(GetEventHandler(), 100, i, -i));
    });
    RunWithLimit(10000);
    sender.join();

    std::lock_guard<std::mutex> lock(g_mutex);
    ASSERT_EQ(static_cast<size_t>(kEvents), g_seen.size());
    for (int i = 0; i < kEvents; ++i) {
        EXPECT_EQ("event 100 " + std::to_string(i) + " " + std::to_string(-i), g_seen[i].what);
        EXPECT_EQ(std::this_thread::get_id(), g_seen[i].thread);
    }
}

// While a handler runs the loop itself, hard timers keep time and weak ones wait until the
// handler has returned.
int NestedLoop(int, int, int) {
    static char hard[] = "hard", weak[] = "weak";
    SetWeakTimerEx("", &NoteTimer, weak, 0);
    SetHardTimerEx("", &NoteTimer, hard, 0);
    auto until = std::chrono::steady_clock::now() + 100ms;
    while (std::chrono::steady_clock::now() < until) {
        ProcessEventLoop();
        std::this_thread::sleep_for(5ms);
    }
    Note("handler done");
    qvhost_stop_event_loop();
    return 0;
}

TEST(EventLoop, WeakTimersWaitWhileAHandlerRunsTheLoop) {
    qvhost_set_event_handler(&NestedLoop);
    SendEventTo(getpid(), 1, 0, 0);
    ASSERT_EQ(0, qvhost_run_event_loop(&NestedLoop));
    qvhost_set_event_handler(&Record);
    SetHardTimerEx("end", &StopLoop, nullptr, 50);
    RunWithLimit(5000);
    EXPECT_EQ((std::vector<std::string>{"hard", "handler done", "weak"}), SeenNames());
}

TEST(EventLoop, EventsOfAChildProcessReachTheParentsLoop) {
    qvhost_set_event_handler(&Record);  // from here on the loop takes events
    // Stray datagrams on the loop's socket are not events.
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string name = "moorglass-loop." + std::to_string(getpid());
    name.copy(address.sun_path + 1, name.size());
    int raw = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(5, sendto(raw, "noise", 5, 0, reinterpret_cast<sockaddr*>(&address),
                        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())));
    close(raw);

    g_stop_after = 3;
    qvtest::ChildResult child = qvtest::RunInChild([] {
        for (int i = 1; i <= 3; ++i) {
            if (SendEventTo(getppid(), 212, 5, i) != 0) return 1;
        }
        return 0;
    });
    ASSERT_TRUE(child.Succeeded()) << child.Describe();
    RunWithLimit(10000);
    EXPECT_EQ((std::vector<std::string>{"event 212 5 1", "event 212 5 2", "event 212 5 3"}),
              SeenNames());

    // A process without a loop, and no process at all.
    qvtest::ChildProcess silent = qvtest::ChildProcess::Start([] {
        pause();
        return 0;
    });
    errno = 0;
    EXPECT_EQ(-1, SendEventTo(silent.pid(), 212, 0, 0));
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_EQ(-1, SendEventTo(0, 212, 0, 0));
}

// ---- Tasks ------------------------------------------------------------------------------------

std::string InstallApp(const std::string& name, const std::string& body) {
    std::string path = "/zelgrot/bin/" + name;
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    chmod(path.c_str(), 0755);
    return path;
}

std::atomic<int> g_platform_sleeps{0};
int CountingSleep(unsigned int microseconds) {
    ++g_platform_sleeps;
    return usleep(microseconds);
}

bool Gone(int pid) {
    return kill(pid, 0) != 0 && errno == ESRCH;
}

TEST(Tasks, StartedTasksAreFoundByNameAndEndWhenClosed) {
    // Takes a moment to end when asked, as applications do.
    std::string path =
        InstallApp("sleeper.app", "trap 'sleep 0.1; exit 0' TERM\nwhile :; do sleep 0.05; done");
    char* argv[] = {const_cast<char*>(path.c_str()), nullptr};
    int task = NewTask(path.c_str(), argv, "sleeper.app", "Sleeper", nullptr, 128);
    ASSERT_GT(task, 0);
    EXPECT_NE(GetCurrentTask(), task);
    EXPECT_EQ(getpid(), GetCurrentTask());
    EXPECT_EQ(task, FindTaskByAppName("sleeper.app"));
    EXPECT_EQ(task, FindTaskByAppName(path.c_str()));
    EXPECT_EQ(-1, FindTaskByAppName("other.app"));
    // Another process of the device finds it too.
    qvtest::ChildResult other = qvtest::RunInChild([task] {
        return FindTaskByAppName("sleeper.app") == task ? 0 : 1;
    });
    EXPECT_TRUE(other.Succeeded()) << other.Describe();

    set_usleep_func(&CountingSleep);
    EXPECT_EQ(0, CloseTask(task, -1, 1));
    set_usleep_func(nullptr);
    EXPECT_GT(g_platform_sleeps.load(), 0) << "the platform's wait didn't use the installed sleep";
    EXPECT_TRUE(Gone(task));  // ended and reaped
    EXPECT_EQ(-1, FindTaskByAppName("sleeper.app"));
    EXPECT_EQ(-1, CloseTask(task, -1, 1));

    EXPECT_EQ(-1, NewTask("/zelgrot/bin/missing.app", nullptr, "missing.app", "", nullptr, 0));
}

TEST(Tasks, ATaskThatIgnoresTheRequestEndsOnlyWhenForced) {
    std::string path = InstallApp("stubborn.app", "trap '' TERM\nwhile :; do sleep 0.05; done");
    char* argv[] = {const_cast<char*>(path.c_str()), nullptr};
    int task = NewTask(path.c_str(), argv, "stubborn.app", "", nullptr, 0);
    ASSERT_GT(task, 0);
    std::this_thread::sleep_for(200ms);  // let the shell set its trap
    EXPECT_EQ(-1, CloseTask(task, -1, 0));
    EXPECT_EQ(task, FindTaskByAppName("stubborn.app"));
    EXPECT_EQ(0, CloseTask(task, -1, 1));
    EXPECT_TRUE(Gone(task));
}

TEST(Tasks, OpenBook2StartsAnApplicationOnceWithItsArguments) {
    std::string path = InstallApp("reader.app", "echo \"$@\" > /tmp/reader.args\nexec sleep 60");
    char first[] = "-open", second[] = "/mnt/ext1/book.epub";
    char* args[] = {first, second};
    int task = OpenBook2(path.c_str(), 2, args, 0);
    ASSERT_GT(task, 0);
    EXPECT_EQ(task, OpenBook2(path.c_str(), 2, args, 0));  // already running: the same task
    EXPECT_EQ(task, FindTaskByAppName("reader.app"));
    std::string line;
    for (int i = 0; i < 200 && line.empty(); ++i) {
        std::this_thread::sleep_for(10ms);
        std::getline(std::ifstream("/tmp/reader.args"), line);
    }
    EXPECT_EQ("-open /mnt/ext1/book.epub", line);
    EXPECT_EQ(0, CloseTask(task, -1, 1));
}

}  // namespace
