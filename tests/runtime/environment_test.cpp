#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <tests/support/faults.h>
#include <tests/support/forked_child.h>
#include <unistd.h>
#include <zt/runtime/environment.h>
#include <zt/runtime/memory.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

using Entries = std::vector<std::string>;

/// The entries as a vector with a null pointer at its end.
class Vector {
  public:
    explicit Vector(const Entries& entries) : entries_(entries)
    {
        for (std::string& entry : entries_) pointers_.push_back(entry.data());
        pointers_.push_back(nullptr);
    }
    char** get() { return pointers_.data(); }
    std::string& text(size_t i) { return entries_[i]; }

  private:
    Entries entries_;
    std::vector<char*> pointers_;
};

class Environment : public ::testing::Test {
  protected:
    void SetUp() override { bytes_before_ = zt_heapsize_class(2); }

    void TearDown() override
    {
        environ = saved_;
        EXPECT_EQ(zt_heapsize_class(2), bytes_before_);
    }

    static Entries take(char** combined)
    {
        Entries entries;
        for (char** entry = combined; *entry; ++entry) entries.emplace_back(*entry);
        zt_mem_ifree(2, combined, __FILE__, __LINE__);
        return entries;
    }

    static Entries combine(const Entries& envp, int merge)
    {
        Vector vector(envp);
        char** combined = nullptr;
        errno = 4711;
        EXPECT_EQ(zt_combine_environs(vector.get(), merge, &combined), 0);
        EXPECT_EQ(errno, 4711);
        return combined ? take(combined) : Entries{"failed"};
    }

    static Entries merge_into(const Entries& current, const Entries& envp)
    {
        Vector vector(current);
        environ = vector.get();
        const Entries result = combine(envp, 1);
        environ = nullptr;
        return result;
    }

  private:
    char** const saved_ = environ;
    long bytes_before_ = 0;
};

TEST_F(Environment, AVariableIsFound)
{
    Vector current({"ONE=1", "EMPTY=", "EQUATION=a=b"});
    environ = current.get();
    EXPECT_STREQ(zt_getenv("ONE"), "1");
    EXPECT_STREQ(zt_getenv("EMPTY"), "");
    EXPECT_STREQ(zt_getenv("EQUATION"), "a=b");
    EXPECT_EQ(zt_getenv("ON"), nullptr);
    EXPECT_EQ(zt_getenv("one"), nullptr);
}

TEST_F(Environment, NoNameNamesNoVariable)
{
    Vector current({"A=B=C", "=x"});
    environ = current.get();
    EXPECT_EQ(zt_getenv(nullptr), nullptr);
    EXPECT_EQ(zt_getenv(""), nullptr);
    EXPECT_EQ(zt_getenv("A=B"), nullptr);
}

TEST_F(Environment, AProcessWithoutEnvironmentHasNoVariables)
{
    environ = nullptr;
    EXPECT_EQ(zt_getenv("PATH"), nullptr);
}

TEST_F(Environment, LookingUpKeepsErrno)
{
    errno = 4711;
    zt_getenv("NO_SUCH_VARIABLE");
    EXPECT_EQ(errno, 4711);
}

TEST_F(Environment, TheProcesssOwnAnswersWhileAnotherOneIsLent)
{
    Vector own({"A=own", "B=own"});
    Vector lent({"A=lent"});
    environ = own.get();
    EXPECT_EQ(zt_own_environ(), own.get());
    EXPECT_EQ(zt_environ_lend(lent.get()), own.get());
    EXPECT_EQ(environ, lent.get());
    EXPECT_EQ(zt_own_environ(), own.get());
    EXPECT_STREQ(zt_getenv("A"), "own");
    EXPECT_EQ(combine({"C=3"}, 1), (Entries{"A=own", "B=own", "C=3"}));
    zt_environ_take_back(own.get());
    EXPECT_EQ(environ, own.get());
    EXPECT_EQ(zt_own_environ(), own.get());
}

TEST_F(Environment, AProcessWithoutAnyHasNoneWhileOneIsLentAndKeepsItAfterwards)
{
    Vector lent({"A=lent"});
    environ = nullptr;
    EXPECT_EQ(zt_environ_lend(lent.get()), nullptr);
    EXPECT_EQ(zt_own_environ(), nullptr);
    EXPECT_EQ(zt_getenv("A"), nullptr);
    EXPECT_EQ(combine({"B=2"}, 1), Entries{"B=2"});
    zt_environ_take_back(nullptr);
    EXPECT_EQ(zt_own_environ(), lent.get());
    EXPECT_STREQ(zt_getenv("A"), "lent");
}

TEST_F(Environment, AForkedChildHasTheOwnOneEvenWhereThatIsNone)
{
    Vector lent({"A=lent"});
    for (char** const own : {environ, static_cast<char**>(nullptr)}) {
        environ = own;
        zt_environ_lend(lent.get());
        forked::Child child([=] { forked::say(environ == own && zt_own_environ() == own ? "own" : "lent"); });
        zt_environ_take_back(own);
        EXPECT_EQ(child.said(), "own");
    }
}

TEST_F(Environment, AThreadNeverGetsTheVectorThatAnotherOneLendsAndTakesBack)
{
    constexpr int loans = 1000000;
    char** const own = environ;
    Vector lent({"A=lent"});
    std::atomic<bool> done{false};
    std::thread lender([&] {
        for (int i = 0; i < loans; ++i) zt_environ_take_back(zt_environ_lend(lent.get()));
        done = true;
    });
    int wrong = 0;
    while (!done) wrong += zt_own_environ() != own ? 1 : 0;
    lender.join();
    EXPECT_EQ(wrong, 0);
}

char** expected_in_handler;
std::atomic<int> right_in_handler, wrong_in_handler;

void look(int)
{
    ++(zt_own_environ() == expected_in_handler ? right_in_handler : wrong_in_handler);
}

TEST_F(Environment, AHandlerThatInterruptsTheLenderGetsTheOwnOneAtOnce)
{
    constexpr int interruptions = 500;
    expected_in_handler = environ;
    Vector lent({"A=lent"});
    signal(SIGALRM, look);
    const itimerval often = {{0, 100}, {0, 100}};
    setitimer(ITIMER_REAL, &often, nullptr);
    while (right_in_handler + wrong_in_handler < interruptions)
        zt_environ_take_back(zt_environ_lend(lent.get()));
    const itimerval never = {};
    setitimer(ITIMER_REAL, &never, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_EQ(wrong_in_handler, 0);
}

TEST_F(Environment, WithoutMergingEnvpIsCopiedAsItStands)
{
    EXPECT_EQ(combine({"B=2", "A=1", "B=3", "odd"}, 0), (Entries{"B=2", "A=1", "B=3", "odd"}));
    EXPECT_EQ(combine({}, 0), Entries());
}

TEST_F(Environment, MergingReplacesInPlaceAndAddsAtTheEnd)
{
    EXPECT_EQ(merge_into({"A=1", "B=2", "C=3"}, {"D=4", "B=new", "E=5"}),
              (Entries{"A=1", "B=new", "C=3", "D=4", "E=5"}));
}

TEST_F(Environment, AnyMergeFlagButZeroMerges)
{
    Vector current({"A=1"});
    environ = current.get();
    EXPECT_EQ(combine({"B=2"}, -1), (Entries{"A=1", "B=2"}));
}

TEST_F(Environment, MergingNothingGivesTheCurrentEnvironment)
{
    EXPECT_EQ(merge_into({"A=1", "B=2"}, {}), (Entries{"A=1", "B=2"}));
    EXPECT_EQ(merge_into({}, {}), Entries());
}

TEST_F(Environment, MergingIntoNoEnvironmentGivesEnvp)
{
    environ = nullptr;
    EXPECT_EQ(combine({"A=1", "B=2"}, 1), (Entries{"A=1", "B=2"}));
}

TEST_F(Environment, NamesAreComparedWhole)
{
    EXPECT_EQ(merge_into({"AB=1", "A=2", "ABC=3", "ab=4"}, {"AB=new", "B=5"}),
              (Entries{"AB=new", "A=2", "ABC=3", "ab=4", "B=5"}));
}

TEST_F(Environment, OfANameTwiceInEnvpTheLastCounts)
{
    EXPECT_EQ(merge_into({"A=1", "B=2"}, {"A=first", "N=first", "M=0", "A=last", "N=last"}),
              (Entries{"A=last", "B=2", "M=0", "N=last"}));
}

TEST_F(Environment, OneTextTwiceInEnvpIsOneVariable)
{
    Vector current({"B=2"});
    environ = current.get();
    const char* const entry = "A=1";
    const char* const envp[] = {entry, entry, nullptr};
    char** combined = nullptr;
    ASSERT_EQ(zt_combine_environs(envp, 1, &combined), 0);
    EXPECT_EQ(take(combined), (Entries{"B=2", "A=1"}));
}

TEST_F(Environment, AReplacedNameAppearsOnce)
{
    EXPECT_EQ(merge_into({"A=1", "B=2", "A=3"}, {"A=new"}), (Entries{"A=new", "B=2"}));
    EXPECT_EQ(merge_into({"A=1", "B=2", "A=3"}, {"C=4"}), (Entries{"A=1", "B=2", "A=3", "C=4"}));
}

TEST_F(Environment, EntriesOfAnotherFormAreKept)
{
    EXPECT_EQ(merge_into({"odd", "A=1", "=x"}, {"odd", "=y", "A", "odd=1"}),
              (Entries{"odd", "A=1", "=x", "odd", "=y", "A", "odd=1"}));
}

TEST_F(Environment, TheResultSharesNothing)
{
    Vector current({"A=1"});
    Vector envp({"B=2"});
    environ = current.get();
    char** combined = nullptr;
    ASSERT_EQ(zt_combine_environs(envp.get(), 1, &combined), 0);
    current.text(0)[2] = 'x';
    envp.text(0)[2] = 'x';
    EXPECT_EQ(take(combined), (Entries{"A=1", "B=2"}));
}

TEST_F(Environment, ThousandsOfEntriesAreMerged)
{
    Entries current, envp, expected;
    for (int i = 0; i < 20000; ++i) {
        const std::string name = "NAME_" + std::to_string(i);
        current.push_back(name + "=old");
        if (i % 2) envp.push_back(name + "=new");
        expected.push_back(name + (i % 2 ? "=new" : "=old"));
    }
    for (int i = 0; i < 20000; ++i) {
        envp.push_back("ADDED_" + std::to_string(i) + "=1");
        expected.push_back(envp.back());
    }
    EXPECT_EQ(merge_into(current, envp), expected);
}

TEST_F(Environment, NullArgumentsFail)
{
    Vector envp({"A=1"});
    char* untouched = nullptr;
    char** combined = &untouched;
    errno = 0;
    EXPECT_LT(zt_combine_environs(nullptr, 1, &combined), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(combined, nullptr);
    errno = 0;
    EXPECT_LT(zt_combine_environs(envp.get(), 1, nullptr), 0);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Environment, ShortOfMemoryFails)
{
    Vector envp({"A=1"});
    for (int merge : {0, 1}) {
        char* untouched = nullptr;
        char** combined = &untouched;
        faults::Plan plan{{.function = faults::Function::calloc, .error = ENOMEM}};
        errno = 0;
        EXPECT_LT(zt_combine_environs(envp.get(), merge, &combined), 0);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_TRUE(plan.fired());
        EXPECT_EQ(combined, nullptr);
    }
}

TEST_F(Environment, TheResultIsOneBlock)
{
    Vector current({"A=1", "B=2"});
    Vector envp({"B=3", "C=4"});
    environ = current.get();
    faults::Plan count_only{};
    char** combined = nullptr;
    ASSERT_EQ(zt_combine_environs(envp.get(), 1, &combined), 0);
    EXPECT_EQ(faults::calls(faults::Function::calloc), 1);
    EXPECT_EQ(faults::calls(faults::Function::malloc), 0);
    EXPECT_EQ(faults::calls(faults::Function::realloc), 0);
    zt_mem_ifree(2, combined, __FILE__, __LINE__);
}

}  // namespace
