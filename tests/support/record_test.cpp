#include "tests/support/record.h"

#include <gtest/gtest.h>
#include <zt/ztpipe.h>

#include <cstring>

TEST(Record, NamesEveryField)
{
    zt::Status status;
    EXPECT_EQ(record::fields(status).size(), 10U + 2U * ZT_STATUS_PARMS);
}

TEST(Record, TellsOneChangedByteFromAnUntouchedRecord)
{
    zt::Status status;
    record::poison(status);
    EXPECT_TRUE(record::is_still_poisoned(status));
    status.sparm[7][254] = 'x';
    EXPECT_FALSE(record::is_still_poisoned(status));
}

TEST(Record, KeepsParametersThatAClearLeaves)
{
    zt::Status status;
    record::poison(status);
    status.clear();
    EXPECT_EQ(record::fields(status), record::cleared());
    EXPECT_NE(record::fields(status).at("iparm[3]"), "0");
}

TEST(Record, ComparesAWholeFailure)
{
    zt::Status status;
    record::poison(status);
    EXPECT_EQ(zt_pipe_write(-1, "x", 1, &status), -1);
    EXPECT_EQ(record::fields(status),
              record::failure(ZT_PIPE_E_HANDLE, "ztpipe(zt_pipe_write):1093", {{"iparm[0]", "-1"}}));
}

TEST(Record, EndsATextWithoutTerminatorAtItsField)
{
    zt::Status status;
    std::memset(status.host, 'h', sizeof status.host);
    EXPECT_EQ(record::fields(status).at("host").size(), sizeof status.host);
}
