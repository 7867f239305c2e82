#include <errno.h>
#include <gtest/gtest.h>
#include <tests/support/forked_child.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/interrupt.h>
#include <zt/runtime/options.h>
#include <zt/runtime/signals.h>
#include <zt/runtime/status.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <string>
#include <thread>
#include <utility>

using forked::Child;
using forked::say;

namespace {

std::atomic<int> handled{0};

void record(int signo)
{
    ++handled;
    say("handled:", signo);
    errno = 1;
}

void record_otherwise(int signo)
{
    say("otherwise:", signo);
}

void count_only(int)
{
    ++handled;
}

int install(const char* specification, void (*handler)(int) = record)
{
    zt::Status status;
    return static_cast<int>(zt_signal(handler, "record", "test", specification, &status));
}

void set_action(int signo, void (*handler)(int))
{
    signal(signo, handler);
}

bool acts_by(int signo, void (*handler)(int))
{
    struct sigaction now;
    return sigaction(signo, nullptr, &now) == 0 && now.sa_handler == handler;
}

/// Runs once, before the next action is set.
void (*before_next_action)() = nullptr;
std::thread second_registration;

void expect_location(const zt::Status& status, int line)
{
    EXPECT_EQ(status.where, "signals(zt_signal):" + std::to_string(line));
    EXPECT_EQ(status.subcode, 0u);
    EXPECT_STRNE(status.host, "");
}

}  // namespace

extern "C" int __real_sigaction(int, const struct sigaction*, struct sigaction*);

extern "C" int __wrap_sigaction(int signo, const struct sigaction* action, struct sigaction* old)
{
    if (action != nullptr && before_next_action != nullptr) std::exchange(before_next_action, nullptr)();
    return __real_sigaction(signo, action, old);
}

TEST(Signals, HandlerGetsTheNumberOfEveryDelivery)
{
    Child child([] {
        say("", install("SIGPIPE, REINSTALL"));
        int ends[2];
        if (pipe(ends) != 0) abort();
        close(ends[0]);
        for (int i = 0; i < 2; ++i) {
            const ssize_t written = write(ends[1], "x", 1);
            say(written < 0 && errno == EPIPE ? "EPIPE " : "other ");
        }
    });
    EXPECT_EQ(child.said(), "0 handled:13 EPIPE handled:13 EPIPE ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Signals, ErrnoSurvivesTheHandlerAndTheRegistration)
{
    Child child([] {
        errno = 77;
        install("SIGUSR1, REINSTALL");
        say("", errno);
        raise(SIGUSR1);
        say("", errno);
    });
    EXPECT_EQ(child.said(), "77 handled:10 77 ");
}

TEST(Signals, WithoutReinstallTheSecondDeliveryHasTheDefaultAction)
{
    Child child([] {
        install("SIGUSR1");
        raise(SIGUSR1);
        raise(SIGUSR1);
    });
    EXPECT_EQ(child.said(), "handled:10 ");
    EXPECT_EQ(child.ended_by(), SIGUSR1);
}

TEST(Signals, InterruptedReadIsRestarted)
{
    if (forked::handlers_come_late) GTEST_SKIP() << "handlers come late under this sanitizer";
    Child child([] {
        install("SIGUSR1, REINSTALL");
        say("ready ");
        char byte = 0;
        const ssize_t got = read(forked::from_parent, &byte, 1);
        say(got == 1 && byte == 'g' ? "read " : "broken off ");
    });
    ASSERT_TRUE(child.has_said("ready"));
    for (int i = 0; i < 50; ++i) {
        child.kill(SIGUSR1);
        ASSERT_TRUE(child.has_said("handled:10"));
    }
    child.go();
    const std::string said = child.said();
    EXPECT_NE(said.find("read "), std::string::npos) << said;
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Signals, SpecificationTakesNamesInAnyCaseBetweenBlanksAndCommas)
{
    Child child([] {
        say("", install(" sigusr1,SigUsr2\t,, reinstall SIGRTMIN+3, SIGRTMIN SIGPOLL\n"));
        for (const int signo : {SIGUSR1, SIGUSR2, SIGRTMIN + 3, SIGRTMIN, SIGIO}) {
            raise(signo);
            raise(signo);
        }
        say("", handled);
        say("", acts_by(SIGRTMIN + 1, SIG_DFL) && acts_by(SIGPIPE, SIG_DFL));
    });
    const std::string said = child.said();
    EXPECT_EQ(said.substr(0, 24), "0 handled:10 handled:10 ") << said;
    EXPECT_EQ(said.substr(said.size() - 5), "10 1 ") << said;
}

TEST(Signals, LaterRegistrationReplacesTheHandler)
{
    Child child([] {
        install("SIGUSR1, REINSTALL");
        install("SIGUSR1, REINSTALL", record_otherwise);
        raise(SIGUSR1);
    });
    EXPECT_EQ(child.said(), "otherwise:10 ");
}

TEST(Signals, IgnoringIsAHandlerToo)
{
    Child child([] {
        say("", install("SIGTERM, REINSTALL", SIG_IGN));
        say("", acts_by(SIGTERM, SIG_IGN));
        raise(SIGTERM);
    });
    EXPECT_EQ(child.said(), "0 1 ");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Signals, SignalThatWasOnItsWayWhenIgnoringBeganCallsNothing)
{
    Child child([] {
        install("SIGUSR1, REINSTALL");
        struct sigaction on_its_way;
        sigaction(SIGUSR1, nullptr, &on_its_way);
        install("SIGUSR1", SIG_IGN);
        on_its_way.sa_handler(SIGUSR1);
        say("alive");
    });
    EXPECT_EQ(child.said(), "alive");
    EXPECT_EQ(child.exit_code(), 0);
}

TEST(Signals, ThreadsThatRegisterAtTheSameTimeLeaveHandlerAndActionOfOneOfThem)
{
    // The other one gets as far as it can while the first is about to have its action set.
    before_next_action = [] {
        static std::atomic<pid_t> other{0};
        static std::atomic<bool> done{false};
        second_registration = std::thread([] {
            other = forked::thread_id();
            install("SIGUSR1, REINSTALL", SIG_IGN);
            done = true;
        });
        EXPECT_TRUE(forked::comes_true([] { return done || (other != 0 && forked::sleeps(other)); }));
    };
    install("SIGUSR1, REINSTALL", count_only);
    second_registration.join();
    handled = 0;
    raise(SIGUSR1);
    EXPECT_EQ(handled, acts_by(SIGUSR1, SIG_IGN) ? 0 : 1);
    set_action(SIGUSR1, SIG_DFL);
}

TEST(Signals, ActionsAreReadAndReplacedAsBySigaction)
{
    struct sigaction wanted = {};
    wanted.sa_handler = count_only;
    wanted.sa_flags = SA_RESTART;
    struct sigaction found;
    EXPECT_EQ(zt_signal_action(SIGUSR1, &wanted, &found), 0);
    EXPECT_EQ(found.sa_handler, SIG_DFL);
    EXPECT_TRUE(acts_by(SIGUSR1, count_only));
    EXPECT_EQ(zt_signal_action(SIGUSR1, nullptr, &found), 0);
    EXPECT_EQ(found.sa_handler, &count_only);
    EXPECT_NE(found.sa_flags & SA_RESTART, 0);
    errno = 0;
    EXPECT_EQ(zt_signal_action(SIGKILL, &wanted, nullptr), -1);
    EXPECT_EQ(errno, EINVAL);
    set_action(SIGUSR1, SIG_DFL);
}

TEST(Signals, ActionOfTheInterruptIsTheApplicationsUnderAnArmedLatch)
{
    set_action(SIGINT, count_only);
    zt_sys_arm_interrupt();
    struct sigaction found;
    EXPECT_EQ(zt_signal_action(SIGINT, nullptr, &found), 0);
    EXPECT_EQ(found.sa_handler, &count_only);
    struct sigaction wanted = {};
    wanted.sa_handler = record_otherwise;
    EXPECT_EQ(zt_signal_action(SIGINT, &wanted, nullptr), 0);
    EXPECT_FALSE(acts_by(SIGINT, record_otherwise)) << "the latch stands";
    zt_sys_disarm_interrupt();
    EXPECT_TRUE(acts_by(SIGINT, record_otherwise));
    set_action(SIGINT, SIG_DFL);
}

TEST(Signals, InterruptHandlerIsInstalledThroughAnArmedLatch)
{
    Child child([] {
        zt_sys_arm_interrupt();
        install("SIGINT, REINSTALL");
        raise(SIGINT);
        say("", zt_sys_poll_interrupt(1));
        zt_sys_disarm_interrupt();
        raise(SIGINT);
    });
    EXPECT_EQ(child.said(), "1 handled:2 ");
}

TEST(Signals, MissingArgumentsAreRefused)
{
    zt::Status status;
    EXPECT_EQ(zt_signal(nullptr, "h", "test", "SIGUSR1", &status), 10036u);
    EXPECT_EQ(status.code, 10036u);
    EXPECT_STREQ(status.sparm[0], "handler");
    EXPECT_STREQ(status.sparm[1], "zt_signal");
    expect_location(status, 18);
    for (const char* nothing : {static_cast<const char*>(nullptr), "", " , ", "REINSTALL"}) {
        status.clear();
        EXPECT_EQ(zt_signal(count_only, nullptr, nullptr, nothing, &status), 10036u);
        EXPECT_STREQ(status.sparm[0], "specification");
        EXPECT_STREQ(status.sparm[1], "zt_signal");
        expect_location(status, 22);
    }
    EXPECT_EQ(zt_signal(count_only, "h", "test", "SIGUSR1", nullptr), 10047u);
    EXPECT_TRUE(acts_by(SIGUSR1, SIG_DFL));
}

TEST(Signals, UnknownWordIsRefusedBeforeAnythingIsInstalled)
{
    zt::Status status;
    const std::string endless(300, 'X');
    for (const std::string word :
         {"SIGPIPES", "SIG", "PIPE", "13", "SIGRTMIN+99", "REINSTALLED", "=", "SIGPIPE;"}) {
        status.clear();
        const std::string specification = "SIGUSR1, " + word + ",REINSTALL";
        EXPECT_EQ(zt_signal(count_only, "h", "test", specification.c_str(), &status),
                  static_cast<uint32_t>(ZT_OPTION_E_UNKNOWN));
        EXPECT_EQ(status.code, static_cast<uint32_t>(ZT_OPTION_E_UNKNOWN));
        EXPECT_EQ(status.sparm[0], word);
        EXPECT_EQ(status.sys_errno, 0u);
        expect_location(status, 31);
    }
    EXPECT_EQ(zt_signal(count_only, "h", "test", endless.c_str(), &status),
              static_cast<uint32_t>(ZT_OPTION_E_UNKNOWN));
    EXPECT_EQ(status.sparm[0], endless.substr(0, 255));
    EXPECT_TRUE(acts_by(SIGUSR1, SIG_DFL));
}

TEST(Signals, SignalThatTheSystemRefusesLeavesTheOthersAsTheyWere)
{
    zt::Status status;
    EXPECT_EQ(zt_signal(count_only, "count_only", "test", "SIGHUP, SIGKILL, SIGUSR1", &status),
              zt_error_no(EINVAL));
    EXPECT_EQ(status.code, zt_error_no(EINVAL));
    EXPECT_EQ(status.sys_errno, static_cast<uint32_t>(EINVAL));
    EXPECT_STREQ(status.sys_msg, "Invalid argument");
    EXPECT_STREQ(status.sparm[0], "SIGKILL");
    EXPECT_STREQ(status.sparm[1], "count_only");
    EXPECT_STREQ(status.object, "test");
    expect_location(status, 44);
    EXPECT_TRUE(acts_by(SIGHUP, SIG_DFL));
    EXPECT_TRUE(acts_by(SIGUSR1, SIG_DFL));

    Child child([] {
        install("SIGHUP, REINSTALL");
        install("SIGHUP, SIGSTOP, REINSTALL", record_otherwise);
        raise(SIGHUP);
    });
    EXPECT_EQ(child.said(), "handled:1 ");
}

TEST(Signals, TokensAreTheNamesOfTheSystem)
{
    for (int signo = 1; signo < 32; ++signo) {
        if (signo == SIGIO) continue;  // has two names
        EXPECT_EQ(zt_signal_token(signo), std::string("SIG") + sigabbrev_np(signo));
    }
    EXPECT_STREQ(zt_signal_token(SIGPIPE), "SIGPIPE");
    EXPECT_STREQ(zt_signal_token(SIGIO), "SIGIO");
    EXPECT_STREQ(zt_signal_token(SIGRTMIN), "SIGRTMIN");
    EXPECT_STREQ(zt_signal_token(SIGRTMIN + 3), "SIGRTMIN+3");
    EXPECT_EQ(zt_signal_token(SIGRTMAX), "SIGRTMIN+" + std::to_string(SIGRTMAX - SIGRTMIN));
    for (const int nothing : {0, -1, SIGRTMIN - 1, SIGRTMAX + 1, 1000, -2147483647 - 1, 2147483647}) {
        EXPECT_STREQ(zt_signal_token(nothing), "UNKNOWN") << nothing;
    }
}

TEST(Signals, DescriptionsAreTheTextsOfTheSystem)
{
    EXPECT_STREQ(zt_signal_desc(SIGPIPE), "Broken pipe");
    EXPECT_STREQ(zt_signal_desc(SIGTERM), "Terminated");
    EXPECT_STREQ(zt_signal_desc(SIGRTMIN + 3), "Real-time signal");
    for (const int nothing : {0, -1, SIGRTMAX + 1, 1000, -2147483647 - 1, 2147483647}) {
        EXPECT_STREQ(zt_signal_desc(nothing), "Unknown signal") << nothing;
    }
}

TEST(Signals, OnlyNormalTerminationAndSignalsFromOutsideAreSafe)
{
    const int safe[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGTERM, SIGALRM, SIGVTALRM,
                        SIGPROF, SIGUSR1, SIGUSR2, SIGIO,   SIGXCPU, SIGXFSZ};
    for (int signo = -3; signo < 70; ++signo) {
        const bool listed = std::find(std::begin(safe), std::end(safe), signo) != std::end(safe);
        EXPECT_EQ(zt_signal_safe(signo), signo <= 0 || listed) << signo;
    }
}

TEST(Signals, ForkedProgramStartsWithDefaultsAndIgnoredSignalsStayIgnored)
{
    Child child([] {
        install("SIGUSR1, SIGTERM, SIGRTMIN+2, REINSTALL");
        set_action(SIGHUP, SIG_IGN);
        set_action(SIGPIPE, SIG_IGN);
        zt_sys_arm_interrupt();
        errno = 77;
        zt_signal_prepare_exec();
        say("", errno);
        const bool defaults = acts_by(SIGUSR1, SIG_DFL) && acts_by(SIGTERM, SIG_DFL) &&
                              acts_by(SIGRTMIN + 2, SIG_DFL) && acts_by(SIGINT, SIG_DFL);
        say("defaults:", defaults);
        say("SIGHUP ignored:", acts_by(SIGHUP, SIG_IGN));
        say("SIGPIPE default:", acts_by(SIGPIPE, SIG_DFL));
    });
    EXPECT_EQ(child.said(), "77 defaults:1 SIGHUP ignored:1 SIGPIPE default:1 ");
}

TEST(Signals, ForkedProgramStartsWithInterruptsIgnoredWhereTheApplicationIgnoresThem)
{
    Child before([] {
        set_action(SIGINT, SIG_IGN);
        zt_sys_arm_interrupt();
        zt_signal_prepare_exec();
        say("", acts_by(SIGINT, SIG_IGN));
    });
    Child meanwhile([] {
        zt_sys_arm_interrupt();
        install("SIGINT, REINSTALL", SIG_IGN);
        zt_signal_prepare_exec();
        say("", acts_by(SIGINT, SIG_IGN));
    });
    EXPECT_EQ(before.said(), "1 ");
    EXPECT_EQ(meanwhile.said(), "1 ");
}
