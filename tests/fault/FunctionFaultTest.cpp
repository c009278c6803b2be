#include "Diagnostics.h"
#include "SqlFunction.h"
#include "SqlStatement.h"
#include "Trouble.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <tuple>

namespace {

using test::Cause;
using test::Target;

class FunctionFaultTest : public testing::TestWithParam<std::tuple<Cause, bool>> {
protected:
    // True when the cause has struck.
    static bool callWithTrouble(int nth)
    {
        const auto& [cause, lasts] = GetParam();
        test::Diagnostics diagnostics;
        const auto token = std::make_shared<int>(7);
        test::Trouble trouble(cause, nth, lasts);
        {
            sql::Database database;
            EXPECT_TRUE(database.open(":memory:", sql::Database::access_create, false, 0));
            // So that a long argument has to be converted, which takes memory.
            EXPECT_TRUE(sql::runScript(database, "pragma encoding = 'UTF-16'"));
            const bool returned = trouble.runThrough(database.getHandle(),
                                                     [&] { work(database, token); });
            EXPECT_TRUE(returned || cause.target == Target::heap);
            EXPECT_TRUE(trouble.hasStruck() || diagnostics.errors().empty());
            work(database, token);
        }
        EXPECT_EQ(token.use_count(), 1);
        EXPECT_EQ(trouble.blocksInUse(), 0);
        return trouble.hasStruck();
    }

private:
    // What succeeds is right, all else a want of memory.
    static void work(sql::Database& database, const std::shared_ptr<int>& token)
    {
        const std::string given(2000, 'x');
        const auto times = [&given, token](const std::string& text, int count) {
            EXPECT_TRUE(text == given || text == "12345");
            std::string all = std::to_string(*token);
            for (int i = 0; i < count; ++i)
                all += text;
            return all;
        };
        const sql::Result<bool> added = sql::addFunction(database, "times", times);
        EXPECT_TRUE(added || added.error().isNoMemory()) << added.error().text();
        if (!added)
            return;
        sql::Statement call(database, "select times(?, 2), times(12345, 30)");
        call.bind(1, given);
        std::string first;
        std::string second;
        const bool isRead = call.next(first, second);
        EXPECT_TRUE(isRead || call.error().isNoMemory()) << call.error().text();
        EXPECT_TRUE(!isRead || first.size() + second.size() == 1 + 4000 + 1 + 150U);
    }
};

TEST_P(FunctionFaultTest, WantOfMemoryIsToldAndNothingIsLeft)
{
    int nth = 1;
    while (nth < test::most_points && callWithTrouble(nth) && !HasFailure())
        ++nth;
    EXPECT_GT(nth, 10);
    EXPECT_LT(nth, test::most_points);
}

const Cause causes[] = {
    {"NoMemory", Target::sqlite_memory, {}},
#ifdef TEST_HEAP
    {"NoHeap", Target::heap, {}},
#endif
};

INSTANTIATE_TEST_SUITE_P(Memory, FunctionFaultTest,
                         testing::Combine(testing::ValuesIn(causes), testing::Bool()),
                         [](const testing::TestParamInfo<std::tuple<Cause, bool>>& chosen) {
                             return std::get<0>(chosen.param).name
                                    + (std::get<1>(chosen.param) ? "Lasting" : "");
                         });

} // namespace
