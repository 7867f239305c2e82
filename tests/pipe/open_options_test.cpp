// What the option text of an open asks for, as it stands in the control block, and which texts are refused.
#include <gtest/gtest.h>
#include <stdlib.h>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/pipes.h"

namespace {

std::string shown(const zt_pipe& pipe)
{
    const auto number = [](auto value) { return std::to_string(value); };
    return "mode " + number(pipe.mode) + ", direction " + number(pipe.direction) + ", korn " +
           number(pipe.korn) + ", binary " + number(pipe.binary) + ", stderr " + number(pipe.stderr_mode) +
           ", size " + number(pipe.size) + ", read size " + number(pipe.read_size) + ", user '" +
           pipe.username + "', password '" + pipe.password + "'";
}

class OpenOptions : public NothingLeftTest {
  protected:
    /// The control block that an open makes of the options. `true` takes any role.
    static std::string block(const std::string& options)
    {
        const int handle = pipes::open("true", options.c_str());
        const std::string result = pipes::block(handle) ? shown(*pipes::block(handle)) : "none";
        pipes::close(handle, options.find("PROGRAM") == std::string::npos ? "" : "NOKILL");
        return result;
    }

    static record::Fields refused(const std::string& options)
    {
        return pipes::refused("true", options.c_str());
    }

    static record::Fields failure(std::uint32_t code, int line, const record::Fields& and_then_set)
    {
        return record::failure(code, "ztpipe(zt_ipipe_open):" + std::to_string(line), and_then_set);
    }

    static record::Fields conflict(const char* first, const char* second, int line)
    {
        return failure(11104, line, {{"sparm[0]", first}, {"sparm[1]", second}});
    }
};

const std::string defaults = "korn 0, binary 0, stderr 2, size 65536, read size 32768, user '', password ''";
const std::string no_child = "mode 0, direction 0, ";
const std::string reading_command = "mode 2, direction 0, ";

}  // namespace

TEST_F(OpenOptions, LeftOutAreTheDefaultsAndNoChild)
{
    EXPECT_EQ(block(""), no_child + defaults);
    EXPECT_EQ(block(" , "), no_child + defaults);
}

TEST_F(OpenOptions, ThatAreEmptyNeverFailAndApplyNothing)
{
    zt::Status status;
    record::poison(status);
    const int handle = ZT_PIPE_OPEN("true", "", nullptr, nullptr, &status);
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_EQ(pipes::close(handle), 0U);
}

TEST_F(OpenOptions, ProgramIsATwoWayPipe)
{
    EXPECT_EQ(block("PROGRAM"), "mode 1, direction 2, " + defaults);
}

TEST_F(OpenOptions, CommandReadsUnlessWriteIsGiven)
{
    EXPECT_EQ(block("COMMAND"), reading_command + defaults);
    EXPECT_EQ(block("COMMAND READ"), reading_command + defaults);
    EXPECT_EQ(block("COMMAND WRITE"), "mode 2, direction 1, " + defaults);
}

TEST_F(OpenOptions, WriteAndKornMeanNothingWithoutCommand)
{
    EXPECT_EQ(block("WRITE KORN"), no_child + defaults);
}

TEST_F(OpenOptions, KornIsStoredForACommand)
{
    const std::string korn = "korn 1" + defaults.substr(6);
    const int handle = pipes::open("true", "COMMAND KORN");
    EXPECT_EQ(shown(*pipes::block(handle)), reading_command + korn);
    pipes::close(handle);
}

TEST_F(OpenOptions, BinaryIsStoredAndAsciiIsTheDefault)
{
    EXPECT_NE(block("BINARY").find("binary 1"), std::string::npos);
    EXPECT_EQ(block("ASCII"), no_child + defaults);
}

TEST_F(OpenOptions, PopenHasNoEffectOfItsOwn)
{
    EXPECT_EQ(block("$POPEN"), no_child + defaults);
    EXPECT_EQ(block("COMMAND $POPEN"), reading_command + defaults);
}

TEST_F(OpenOptions, UserNameAndPasswordAreStoredAsTheyAreWritten)
{
    const std::string stored = block("USERNAME=Otto PASSWORD='it''s, me'");
    EXPECT_NE(stored.find("user 'Otto', password 'it's, me'"), std::string::npos) << stored;
}

TEST_F(OpenOptions, UserNameNeedsNoPassword)
{
    EXPECT_NE(block("USERNAME=Otto").find("user 'Otto', password ''"), std::string::npos);
}

TEST_F(OpenOptions, StderrTakesItsThreeWordsInAnyCase)
{
    EXPECT_NE(block("COMMAND STDERR=discard").find("stderr 1"), std::string::npos);
    EXPECT_NE(block("PROGRAM STDERR=DISCARD").find("stderr 1"), std::string::npos);
    EXPECT_NE(block("COMMAND STDERR=Combine").find("stderr 2"), std::string::npos);
    EXPECT_NE(block("COMMAND STDERR=ignore").find("stderr 3"), std::string::npos);
}

TEST_F(OpenOptions, ASizeThatIsNotANumberIsStoredAsZero)
{
    EXPECT_NE(block("SIZE=many READSIZE=few").find("size 0, read size 0,"), std::string::npos);
}

TEST_F(OpenOptions, SizesAreStoredUncheckedAsTheNumberThatTheyBeginWith)
{
    EXPECT_NE(block("SIZE=-5 READSIZE=12k").find("size -5, read size 12,"), std::string::npos);
}

TEST_F(OpenOptions, KeywordsMayComeInAnyOrderCaseAndSeparation)
{
    EXPECT_EQ(
        block("readsize = 7 ,, Binary,command"),
        "mode 2, direction 0, korn 0, binary 1, stderr 2, size 65536, read size 7, user '', password ''");
}

TEST_F(OpenOptions, ThatTheProcessorRefusesPassThroughWithTheOffendingText)
{
    EXPECT_EQ(refused("PROGRAM BOGUS"), failure(11201, 2584, {{"sparm[0]", "BOGUS"}}));
    EXPECT_EQ(refused("BINARY BINARY"), failure(11202, 2584, {{"sparm[0]", "BINARY"}}));
    EXPECT_EQ(refused("SIZE"), failure(11204, 2584, {{"sparm[0]", "SIZE"}}));
    EXPECT_EQ(refused("KORN=1"), failure(11205, 2584, {{"sparm[0]", "KORN=1"}}));
    EXPECT_EQ(refused("USERNAME='x"), failure(11206, 2584, {{"sparm[0]", "'x"}}));
}

TEST_F(OpenOptions, OfOneGroupExcludeEachOther)
{
    EXPECT_EQ(refused("PROGRAM COMMAND"), failure(11203, 2584, {{"sparm[0]", "COMMAND"}}));
    EXPECT_EQ(refused("BINARY ASCII"), failure(11203, 2584, {{"sparm[0]", "ASCII"}}));
    EXPECT_EQ(refused("WRITE READ"), failure(11203, 2584, {{"sparm[0]", "READ"}}));
}

TEST_F(OpenOptions, StderrAndWriteExcludeEachOther)
{
    EXPECT_EQ(refused("COMMAND WRITE STDERR=DISCARD"), conflict("STDERR", "WRITE", 2592));
}

TEST_F(OpenOptions, ProgramAndWriteExcludeEachOther)
{
    EXPECT_EQ(refused("PROGRAM WRITE"), conflict("PROGRAM", "WRITE", 2617));
}

TEST_F(OpenOptions, ProgramWithStderrAndWriteNamesStderrAndWriteWhateverTheValue)
{
    EXPECT_EQ(refused("PROGRAM STDERR=COMBINE WRITE"), conflict("STDERR", "WRITE", 2592));
    EXPECT_EQ(refused("PROGRAM STDERR=LOUD WRITE"), conflict("STDERR", "WRITE", 2592));
}

TEST_F(OpenOptions, ProgramNamesTheFirstKeywordOfACommandInTheirOrder)
{
    EXPECT_EQ(refused("$POPEN KORN READ PROGRAM"), conflict("PROGRAM", "READ", 2617));
    EXPECT_EQ(refused("$POPEN KORN WRITE PROGRAM"), conflict("PROGRAM", "WRITE", 2617));
    EXPECT_EQ(refused("$POPEN KORN PROGRAM"), conflict("PROGRAM", "KORN", 2617));
    EXPECT_EQ(refused("$POPEN PROGRAM"), conflict("PROGRAM", "$POPEN", 2617));
}

TEST_F(OpenOptions, PasswordWithoutUserNameIsRefused)
{
    EXPECT_EQ(refused("COMMAND PASSWORD=x"), failure(11108, 2599, {{"msg", "PASSWORD w/o USERNAME"}}));
}

TEST_F(OpenOptions, ConflictsAreLookedForInAFixedOrder)
{
    EXPECT_EQ(refused("COMMAND WRITE STDERR=LOUD PASSWORD=x").at("where"), "ztpipe(zt_ipipe_open):2592");
    EXPECT_EQ(refused("PROGRAM KORN PASSWORD=x").at("where"), "ztpipe(zt_ipipe_open):2599");
    EXPECT_EQ(refused("PROGRAM KORN STDERR=LOUD").at("where"), "ztpipe(zt_ipipe_open):2617");
    EXPECT_EQ(refused("COMMAND STDERR=LOUD MERGE_ENV").at("where"), "ztpipe(zt_ipipe_open):2671");
}

TEST_F(OpenOptions, AnUnknownValueOfStderrIsNamed)
{
    EXPECT_EQ(refused("COMMAND STDERR=Loud"),
              failure(11103, 2671, {{"sparm[0]", "STDERR"}, {"sparm[1]", "Loud"}}));
    EXPECT_EQ(refused("PROGRAM STDERR=''"), failure(11103, 2671, {{"sparm[0]", "STDERR"}, {"sparm[1]", ""}}));
}

TEST_F(OpenOptions, AFailedCommandOpenIsUndoneWithoutAStream)
{
    faults::Plan plan{};
    EXPECT_EQ(refused("COMMAND STDERR=LOUD").at("code"), "11103");
    EXPECT_EQ(faults::calls(faults::Function::popen), 0);
    EXPECT_EQ(faults::calls(faults::Function::pclose), 0);
}

TEST_F(OpenOptions, UserNameAndPasswordOf32CharactersFitAnd33AreRefused)
{
    const std::string longest(32, 'u');
    const std::string stored = block("USERNAME=" + longest + " PASSWORD=" + longest);
    EXPECT_NE(stored.find("user '" + longest + "', password '" + longest + "'"), std::string::npos);
    EXPECT_EQ(refused("USERNAME=" + longest + "v"),
              failure(10037, 4003, {{"sparm[0]", "USERNAME"}, {"iparm[0]", "33"}, {"iparm[1]", "32"}}));
    EXPECT_EQ(refused("USERNAME=u PASSWORD=" + longest + "v"),
              failure(10037, 4004, {{"sparm[0]", "PASSWORD"}, {"iparm[0]", "33"}, {"iparm[1]", "32"}}));
}

TEST_F(OpenOptions, Of256CharactersAreAcceptedAnd257Refused)
{
    std::string options = "BINARY";
    options.resize(250, ' ');
    options += "READ=X";
    EXPECT_EQ(refused(options).at("code"), "11205") << "the last characters are read too";
    options.replace(250, 6, "SIZE=9");
    EXPECT_NE(block(options).find("binary 1, stderr 2, size 9"), std::string::npos);
    EXPECT_EQ(refused(options + " "),
              failure(10037, 4002, {{"sparm[0]", "options"}, {"iparm[0]", "257"}, {"iparm[1]", "256"}}));
}

TEST_F(OpenOptions, ThatAreNullAreRefused)
{
    EXPECT_EQ(pipes::refused("true", nullptr),
              failure(10036, 4001, {{"sparm[0]", "options"}, {"sparm[1]", "zt_ipipe_open"}}));
}
