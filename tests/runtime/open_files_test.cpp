#include <gtest/gtest.h>
#include <sys/wait.h>
#include <tests/support/faults.h>
#include <unistd.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/open_files.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kind = 6;

using Shown = std::vector<zt_file_entry>;

Shown shown(int of_kind = kind)
{
    Shown entries;
    const int count = zt_ifile_list(
        of_kind,
        [](const zt_file_entry* entry, void* context) { static_cast<Shown*>(context)->push_back(*entry); },
        &entries);
    EXPECT_EQ(static_cast<size_t>(count), entries.size());
    return entries;
}

std::vector<std::string> names(int of_kind = kind)
{
    std::vector<std::string> result;
    for (const zt_file_entry& entry : shown(of_kind)) result.emplace_back(entry.name);
    return result;
}

using Names = std::vector<std::string>;

int add(const char* name, void* block, int of_kind = kind)
{
    return zt_ifile_add_entry(of_kind, name, block, 0, "caller.cpp", 12);
}

/// Runs `child`, which returns its exit code, in a process of its own that is ended when it hangs.
template <class Function>
int exit_code_of(Function child)
{
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        _exit(child());
    }
    int word = -1;
    EXPECT_EQ(waitpid(pid, &word, 0), pid);
    return WIFEXITED(word) ? WEXITSTATUS(word) : -WTERMSIG(word);
}

class OpenFiles : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(zt_heapsize_class(3), 0); }

    void TearDown() override
    {
        for (const zt_file_entry& entry : shown()) zt_ifile_del_entry(entry.kind, entry.key);
        EXPECT_EQ(zt_heapsize_class(3), 0);
    }

    int blocks[4] = {};
};

TEST_F(OpenFiles, PreparingTwiceChangesNothing)
{
    zt::Status status;
    EXPECT_EQ(zt_file_init(0, &status), 0U);
    EXPECT_EQ(add("one", &blocks[0]), 0);
    EXPECT_EQ(zt_file_init(0, &status), 0U);
    EXPECT_EQ(zt_file_init(0, nullptr), 0U);
    EXPECT_EQ(status.code, 0U);
    EXPECT_EQ(names(), Names{"one"});
}

TEST_F(OpenFiles, NothingDependsOnPreparing)
{
    EXPECT_EQ(zt_ifile_count(kind), 0);
    EXPECT_EQ(zt_ifile_del_entry(kind, &blocks[0]), 0);
    EXPECT_EQ(add("one", &blocks[0]), 0);
}

TEST_F(OpenFiles, AnEntrySaysWhatAndWhere)
{
    ASSERT_EQ(zt_ifile_add_entry(kind, "sort -r", &blocks[1], 0, "main.cpp", 42), 0);
    const Shown entries = shown();
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].kind, kind);
    EXPECT_EQ(entries[0].key, &blocks[1]);
    EXPECT_STREQ(entries[0].name, "sort -r");
    EXPECT_STREQ(entries[0].file, "main.cpp");
    EXPECT_EQ(entries[0].line, 42);
    EXPECT_EQ(entries[0].pid, getpid());
}

TEST_F(OpenFiles, TheTextsAreCopies)
{
    char name[] = "name";
    char file[] = "file";
    ASSERT_EQ(zt_ifile_add_entry(kind, name, &blocks[0], 0, file, 1), 0);
    name[0] = file[0] = 'X';
    EXPECT_STREQ(shown()[0].name, "name");
    EXPECT_STREQ(shown()[0].file, "file");
}

TEST_F(OpenFiles, LongTextsAreCut)
{
    const std::string name(1024, 'n');
    const std::string file = "/" + std::string(500, 'f') + "/last.cpp";
    ASSERT_EQ(zt_ifile_add_entry(kind, name.c_str(), &blocks[0], 0, file.c_str(), 1), 0);
    EXPECT_EQ(shown()[0].name, name.substr(0, 255));
    const std::string kept = shown()[0].file;
    EXPECT_LT(kept.size(), 64U);
    EXPECT_EQ(kept.substr(kept.size() - 8), "last.cpp");
}

TEST_F(OpenFiles, MissingTextsAreEmpty)
{
    ASSERT_EQ(zt_ifile_add_entry(kind, nullptr, &blocks[0], 0, nullptr, 1), 0);
    EXPECT_STREQ(shown()[0].name, "");
    EXPECT_STREQ(shown()[0].file, "");
}

TEST_F(OpenFiles, WithoutABlockThereIsNoEntry)
{
    errno = 0;
    EXPECT_LT(add("none", nullptr), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(zt_ifile_count(kind), 0);
    EXPECT_EQ(zt_ifile_del_entry(kind, nullptr), 0);
}

TEST_F(OpenFiles, RemovingTellsWhetherThereWasAnEntry)
{
    add("one", &blocks[0]);
    EXPECT_EQ(zt_ifile_del_entry(kind, &blocks[1]), 0);
    EXPECT_EQ(zt_ifile_del_entry(kind, &blocks[0]), 1);
    EXPECT_EQ(zt_ifile_del_entry(kind, &blocks[0]), 0);
}

TEST_F(OpenFiles, KindAndKeyMustBothMatch)
{
    add("six", &blocks[0], 6);
    add("seven", &blocks[0], 7);
    EXPECT_EQ(zt_ifile_del_entry(8, &blocks[0]), 0);
    EXPECT_EQ(zt_ifile_del_entry(7, &blocks[0]), 1);
    EXPECT_EQ(names(6), Names{"six"});
    EXPECT_EQ(zt_ifile_count(7), 0);
}

TEST_F(OpenFiles, TheOldestWithAKeyIsRemoved)
{
    add("old", &blocks[0]);
    add("other", &blocks[1]);
    add("new", &blocks[0]);
    EXPECT_EQ(zt_ifile_del_entry(kind, &blocks[0]), 1);
    EXPECT_EQ(names(), (Names{"other", "new"}));
    EXPECT_EQ(zt_ifile_del_entry(kind, &blocks[0]), 1);
    EXPECT_EQ(names(), Names{"other"});
}

TEST_F(OpenFiles, TheListIsOldestFirstWhateverIsRemoved)
{
    const Names all = {"0", "1", "2", "3"};
    for (size_t removed = 0; removed < 4; ++removed) {
        for (size_t i = 0; i < 4; ++i) add(all[i].c_str(), &blocks[i]);
        EXPECT_EQ(zt_ifile_del_entry(kind, &blocks[removed]), 1);
        Names expected = all;
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(removed));
        EXPECT_EQ(names(), expected);
        add("last", &blocks[removed]);
        expected.emplace_back("last");
        EXPECT_EQ(names(), expected);
        for (int& block : blocks) EXPECT_EQ(zt_ifile_del_entry(kind, &block), 1);
        EXPECT_EQ(names(), Names());
    }
}

TEST_F(OpenFiles, ListingWithoutAVisitorCounts)
{
    add("one", &blocks[0]);
    add("two", &blocks[1]);
    add("other", &blocks[1], 7);
    EXPECT_EQ(zt_ifile_list(kind, nullptr, nullptr), 2);
    EXPECT_EQ(zt_ifile_count(kind), 2);
    EXPECT_EQ(zt_ifile_del_entry(7, &blocks[1]), 1);
}

TEST_F(OpenFiles, AnEntryIsOneBlockAndGivesItBack)
{
    add("one", &blocks[0]);
    const long one = zt_heapsize_class(3);
    EXPECT_GT(one, 0);
    add("two", &blocks[1]);
    EXPECT_EQ(zt_heapsize_class(3), 2 * one);
    zt_ifile_del_entry(kind, &blocks[0]);
    EXPECT_EQ(zt_heapsize_class(3), one);
}

TEST_F(OpenFiles, ShortOfMemoryThereIsNoEntry)
{
    faults::Plan plan{{.function = faults::Function::calloc, .error = ENOMEM}};
    errno = 0;
    EXPECT_LT(add("one", &blocks[0]), 0);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(plan.fired());
    EXPECT_EQ(zt_ifile_count(kind), 0);
    EXPECT_EQ(add("one", &blocks[0]), 0);
}

TEST_F(OpenFiles, ErrnoSurvives)
{
    errno = 4711;
    add("one", &blocks[0]);
    zt_file_init(0, nullptr);
    zt_ifile_count(kind);
    zt_ifile_del_entry(kind, &blocks[0]);
    EXPECT_EQ(errno, 4711);
}

TEST_F(OpenFiles, ThousandsOfEntriesAreFoundAgain)
{
    std::vector<int> many(20000);
    for (int& block : many) ASSERT_EQ(add("one of many", &block), 0);
    EXPECT_EQ(zt_ifile_count(kind), 20000);
    for (size_t i = 0; i < many.size(); i += 2) ASSERT_EQ(zt_ifile_del_entry(kind, &many[i]), 1);
    for (size_t i = 0; i < many.size(); ++i)
        ASSERT_EQ(zt_ifile_del_entry(kind, &many[i]), static_cast<int>(i % 2));
    EXPECT_EQ(zt_ifile_count(kind), 0);
}

TEST_F(OpenFiles, ThreadsShareTheRegistry)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([] {
            int mine[8];
            for (int round = 0; round < 500; ++round) {
                for (int& block : mine) EXPECT_EQ(add("mine", &block), 0);
                EXPECT_GE(zt_ifile_count(kind), 8);
                for (int& block : mine) EXPECT_EQ(zt_ifile_del_entry(kind, &block), 1);
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(zt_ifile_count(kind), 0);
}

TEST_F(OpenFiles, AChildKeepsWhatItInheritedAndChangesOnlyItsOwn)
{
    add("parent's", &blocks[0]);
    const pid_t parent = getpid();
    EXPECT_EQ(exit_code_of([&] {
                  if (names() != Names{"parent's"} || shown()[0].pid != parent) return 1;
                  if (add("child's", &blocks[1]) != 0 || shown()[1].pid != getpid()) return 2;
                  if (zt_ifile_del_entry(kind, &blocks[0]) != 1) return 3;
                  return names() == Names{"child's"} ? 0 : 4;
              }),
              0);
    EXPECT_EQ(names(), Names{"parent's"});
}

/// A thread that lists, and stays inside its visitor, with the registry locked, until told to go on.
class Lister {
  public:
    Lister() : thread_([this] { zt_ifile_list(kind, visit, this); }) { entered_.get_future().wait(); }
    ~Lister()
    {
        go_on_.set_value();
        thread_.join();
    }

  private:
    static void visit(const zt_file_entry*, void* context)
    {
        Lister& self = *static_cast<Lister*>(context);
        self.entered_.set_value();
        self.go_on_.get_future().wait();
    }

    std::promise<void> entered_, go_on_;
    std::thread thread_;
};

TEST_F(OpenFiles, AChildDoesNotWaitForALockOfItsParentsThreads)
{
    add("parent's", &blocks[0]);
    Lister lister;
    EXPECT_EQ(exit_code_of([&] {
                  if (zt_file_init(0, nullptr) != 0) return 1;
                  if (add("child's", &blocks[1]) != 0) return 2;
                  if (names() != Names{"parent's", "child's"}) return 3;
                  return zt_ifile_del_entry(kind, &blocks[0]) == 1 ? 0 : 4;
              }),
              0);
}

TEST_F(OpenFiles, AChildForkedInTheMiddleOfChangesCanUseTheRegistry)
{
    std::atomic<bool> stop{false};
    std::thread changer([&] {
        std::vector<int> mine(64);
        while (!stop) {
            for (int& block : mine) add("changing", &block);
            for (int& block : mine) zt_ifile_del_entry(kind, &block);
        }
    });
    for (int round = 0; round < 200; ++round)
        ASSERT_EQ(exit_code_of([&] {
                      if (add("child's", &blocks[0]) != 0) return 1;
                      const Shown entries = shown();
                      if (entries.empty() || entries.back().key != &blocks[0]) return 2;
                      for (const zt_file_entry& entry : entries)
                          if (zt_ifile_del_entry(kind, entry.key) != 1) return 3;
                      return zt_ifile_count(kind) == 0 ? 0 : 4;
                  }),
                  0)
            << round;
    stop = true;
    changer.join();
}

}  // namespace
