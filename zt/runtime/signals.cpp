#include <pthread.h>
#include <string.h>
#include <zt/runtime/errno_guard.h>
#include <zt/runtime/failure.h>
#include <zt/runtime/interrupt.h>
#include <zt/runtime/options.h>
#include <zt/runtime/signals.h>
#include <zt/runtime/transition_lock.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string_view>

namespace {

using Handler = void (*)(int);

constexpr zt::FailureSite at_null_handler = {"signals", "zt_signal", 18};
constexpr zt::FailureSite at_null_specification = {"signals", "zt_signal", 22};
constexpr zt::FailureSite at_unknown_word = {"signals", "zt_signal", 31};
constexpr zt::FailureSite at_refused = {"signals", "zt_signal", 44};

struct SignalName {
    int signo;
    const char* token;
};

constexpr SignalName names[] = {
    {SIGHUP, "SIGHUP"},   {SIGINT, "SIGINT"},   {SIGQUIT, "SIGQUIT"},     {SIGILL, "SIGILL"},
    {SIGTRAP, "SIGTRAP"}, {SIGABRT, "SIGABRT"}, {SIGBUS, "SIGBUS"},       {SIGFPE, "SIGFPE"},
    {SIGKILL, "SIGKILL"}, {SIGUSR1, "SIGUSR1"}, {SIGSEGV, "SIGSEGV"},     {SIGUSR2, "SIGUSR2"},
    {SIGPIPE, "SIGPIPE"}, {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"},     {SIGSTKFLT, "SIGSTKFLT"},
    {SIGCHLD, "SIGCHLD"}, {SIGCONT, "SIGCONT"}, {SIGSTOP, "SIGSTOP"},     {SIGTSTP, "SIGTSTP"},
    {SIGTTIN, "SIGTTIN"}, {SIGTTOU, "SIGTTOU"}, {SIGURG, "SIGURG"},       {SIGXCPU, "SIGXCPU"},
    {SIGXFSZ, "SIGXFSZ"}, {SIGPROF, "SIGPROF"}, {SIGVTALRM, "SIGVTALRM"}, {SIGWINCH, "SIGWINCH"},
    {SIGIO, "SIGIO"},     {SIGPWR, "SIGPWR"},   {SIGSYS, "SIGSYS"},       {SIGPOLL, "SIGPOLL"},
};

// Ready-made texts, because a signal handler that asks for one has nowhere to build it.
constexpr const char* real_time_names[] = {
    "SIGRTMIN",    "SIGRTMIN+1",  "SIGRTMIN+2",  "SIGRTMIN+3",  "SIGRTMIN+4",  "SIGRTMIN+5",  "SIGRTMIN+6",
    "SIGRTMIN+7",  "SIGRTMIN+8",  "SIGRTMIN+9",  "SIGRTMIN+10", "SIGRTMIN+11", "SIGRTMIN+12", "SIGRTMIN+13",
    "SIGRTMIN+14", "SIGRTMIN+15", "SIGRTMIN+16", "SIGRTMIN+17", "SIGRTMIN+18", "SIGRTMIN+19", "SIGRTMIN+20",
    "SIGRTMIN+21", "SIGRTMIN+22", "SIGRTMIN+23", "SIGRTMIN+24", "SIGRTMIN+25", "SIGRTMIN+26", "SIGRTMIN+27",
    "SIGRTMIN+28", "SIGRTMIN+29", "SIGRTMIN+30", "SIGRTMIN+31",
};
constexpr int real_time_name_count = sizeof real_time_names / sizeof real_time_names[0];

constexpr int real_time_count(int first, int last)
{
    return last - first + 1 < real_time_name_count ? last - first + 1 : real_time_name_count;
}

bool is_real_time(int signo)
{
    const int first = SIGRTMIN;
    return signo >= first && signo < first + real_time_count(first, SIGRTMAX);
}

constinit std::atomic<Handler> handlers[NSIG] = {};

// Stands between the signal and the handler, so that the code below never sees errno change. While a handler
// gives way to SIG_IGN a last signal may come here: it is ignored already.
void deliver(int signo)
{
    const zt::ErrnoGuard keep;
    const Handler handler = handlers[signo];
    if (handler != nullptr && handler != SIG_IGN) handler(signo);
}

// Keeps a signal's handler and its action those of one registration when threads register at the same time.
constinit zt::TransitionLock registration;

[[maybe_unused]] const int fork_handler = pthread_atfork(nullptr, nullptr, [] { registration.leave(); });

struct Wanted {
    bool signals[NSIG] = {};
    bool any = false;
    bool reinstall = false;
};

bool equals(std::string_view word, const char* name)
{
    return word.size() == strlen(name) && strncasecmp(word.data(), name, word.size()) == 0;
}

int signal_named(std::string_view word)
{
    for (const SignalName& name : names) {
        if (equals(word, name.token)) return name.signo;
    }
    for (int index = 0; index < real_time_count(SIGRTMIN, SIGRTMAX); ++index) {
        if (equals(word, real_time_names[index])) return SIGRTMIN + index;
    }
    return 0;
}

bool take_word(std::string_view word, Wanted& wanted)
{
    if (equals(word, "REINSTALL")) return wanted.reinstall = true;
    const int signo = signal_named(word);
    wanted.signals[signo] = true;
    wanted.any = wanted.any || signo != 0;
    return signo != 0;
}

// Returns the word that is not understood, or an empty one.
std::string_view parse(std::string_view text, Wanted& wanted)
{
    constexpr std::string_view separators = ", \t\r\n";
    for (;;) {
        text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
        if (text.empty()) return {};
        const std::string_view word = text.substr(0, text.find_first_of(separators));
        if (!take_word(word, wanted)) return word;
        text.remove_prefix(word.size());
    }
}

struct Former {
    struct sigaction action;
    Handler handler;
};

int install(int signo, Handler handler, bool reinstall, Former& former)
{
    struct sigaction action = {};
    action.sa_handler = handler == SIG_IGN ? SIG_IGN : deliver;
    action.sa_flags = reinstall ? SA_RESTART : static_cast<int>(SA_RESTART | SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    former.handler = handlers[signo].exchange(handler);  // before the signal can come
    if (zt_signal_action(signo, &action, &former.action) == 0) return 0;
    const int error = errno;
    handlers[signo] = former.handler;
    return error;
}

// Returns 0, or the signal that was refused with errno set; then all actions are as before.
int install_all(const Wanted& wanted, Handler handler)
{
    Former former[NSIG];
    for (int signo = 1; signo < NSIG; ++signo) {
        if (!wanted.signals[signo]) continue;
        const int error = install(signo, handler, wanted.reinstall, former[signo]);
        if (error == 0) continue;
        for (int undo = signo - 1; undo > 0; --undo) {
            if (!wanted.signals[undo]) continue;
            zt_signal_action(undo, &former[undo].action, nullptr);
            handlers[undo] = former[undo].handler;
        }
        errno = error;
        return signo;
    }
    return 0;
}

uint32_t fail_unknown_word(zt::Status& status, std::string_view word)
{
    const size_t length = std::min(word.size(), sizeof status.sparm[0] - 1);
    memcpy(status.sparm[0], word.data(), length);
    status.sparm[0][length] = '\0';
    return zt::fail(status, at_unknown_word, ZT_OPTION_E_UNKNOWN);
}

uint32_t fail_refused(zt::Status& status, int signo, const char* name, const char* module, int error)
{
    zt_strncpy(status.sparm[0], zt_signal_token(signo), sizeof status.sparm[0]);
    zt_strncpy(status.sparm[1], name ? name : "", sizeof status.sparm[1]);
    zt_strncpy(status.object, module ? module : "", sizeof status.object);
    return zt::fail_system(status, at_refused, zt_error_no(error), error);
}

}  // namespace

uint32_t zt_signal(void (*handler)(int), const char* name, const char* module, const char* specification,
                   zt::Status* status)
{
    const zt::ErrnoGuard keep;
    if (status == nullptr) return zt::no_status_code;
    if (handler == nullptr) return zt::fail_null_argument(*status, at_null_handler, "handler");
    Wanted wanted;
    const std::string_view unknown = parse(specification ? specification : "", wanted);
    if (!unknown.empty()) return fail_unknown_word(*status, unknown);
    if (!wanted.any) return zt::fail_null_argument(*status, at_null_specification, "specification");
    const bool entered = registration.enter();
    const int refused = install_all(wanted, handler);
    if (entered) registration.leave();
    return refused == 0 ? 0 : fail_refused(*status, refused, name, module, errno);
}

const char* zt_signal_token(int signo)
{
    for (const SignalName& name : names) {
        if (name.signo == signo) return name.token;
    }
    return is_real_time(signo) ? real_time_names[signo - SIGRTMIN] : "UNKNOWN";
}

const char* zt_signal_desc(int signo)
{
    if (const char* const text = sigdescr_np(signo)) return text;
    return is_real_time(signo) ? "Real-time signal" : "Unknown signal";
}

bool zt_signal_safe(int signo)
{
    if (signo <= 0) return true;
    for (const int safe : zt::asynchronous_fatal_signals) {
        if (safe == signo) return true;
    }
    return false;
}

void zt_signal_prepare_exec(void)
{
    const zt::ErrnoGuard keep;
    for (int signo = 1; signo < NSIG; ++signo) {
        struct sigaction action;
        if (zt_signal_action(signo, nullptr, &action) != 0) continue;
        const Handler wanted = action.sa_handler == SIG_IGN && signo != SIGPIPE ? SIG_IGN : SIG_DFL;
        // For SIGINT the answer may hide the latch, so that one is always set.
        if (action.sa_handler == wanted && signo != SIGINT) continue;
        action = {};
        action.sa_handler = wanted;
        sigaction(signo, &action, nullptr);
    }
}

int zt_signal_action(int signo, const struct sigaction* replacement, struct sigaction* old)
{
    if (signo == SIGINT) return zt_sys_interrupt_action(replacement, old);
    return sigaction(signo, replacement, old);
}
