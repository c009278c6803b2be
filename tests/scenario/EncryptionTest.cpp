#include "SqlDatabase.h"
#include "SqlRecordSet.h"
#include "SqlTable.h"

#include "Columns.h"
#include "Diagnostics.h"
#include "Environment.h"
#include "Reports.h"
#include "Rows.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

namespace {

using sql::Database;
using sql::Record;
using sql::RecordSet;
using sql::Table;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

const std::vector<std::string> secrets = {"Captain's tea", "product", "SQLite format 3"};

// A file of products, with a key or, as it is otherwise, without one.
class EncryptionTest : public testing::Test {
protected:
    EncryptionTest() : _file(_directory.file("shop.db"))
    {
    }

    // An empty key stands for none.
    bool open(const std::string& key)
    {
        return _database.open(_file, Database::access_create, false, 0)
               && (key.empty()
                   || RecordSet(_database.getHandle()).query("pragma key = '" + key + "'"));
    }

    void store(const std::string& key)
    {
        ASSERT_TRUE(open(key));
        Table products(_database.getHandle(), "product", test::product_columns);
        Record tea(*products.fields());
        tea.setString("name", secrets[0]);
        ASSERT_TRUE(products.create());
        ASSERT_TRUE(products.addRecord(tea));
    }

    // What `key` opens: the rows, or "failed".
    std::vector<std::string> read(const std::string& key)
    {
        EXPECT_TRUE(open(key));
        Table products(_database.getHandle(), "product", test::product_columns);
        return products.open() ? test::held(products) : std::vector<std::string>{"failed"};
    }

    // The secrets that a file of the directory gives away.
    std::vector<std::string> inPlainText(const std::string& file) const
    {
        const std::string bytes = test::readFile(file);
        std::vector<std::string> found;
        for (const std::string& secret : secrets) {
            if (bytes.find(secret) != std::string::npos)
                found.push_back(secret);
        }
        return found;
    }

    test::TemporaryDirectory _directory;
    std::string _file;
    test::Diagnostics _diagnostics;
    Database _database;
};

// The file, by a key or without one; as it is, by another.
struct Key {
    const char* stored;
    const char* tried;
};

class WrongKeyTest : public EncryptionTest, public testing::WithParamInterface<Key> {};

TEST_P(WrongKeyTest, MakesTheFileUnreadable)
{
    store(GetParam().stored);
    EXPECT_THAT(read(GetParam().tried), ElementsAre("failed"));
    EXPECT_EQ(
        _diagnostics.errors(),
        test::errorsOf(test::report::refused(
            "select * from product", "26=SQLITE_NOTADB: file is encrypted or is not a database")));
}

INSTANTIATE_TEST_SUITE_P(Keys, WrongKeyTest,
                         testing::Values(Key{"red onion", ""}, Key{"red onion", "Red onion"},
                                         Key{"", "red onion"}));

TEST_F(EncryptionTest, FileIsReadBackWithItsKey)
{
    store("red onion");
    EXPECT_THAT(read("red onion"), ElementsAre("1|Captain's tea|null"));
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(EncryptionTest, KeyMayComeAfterAReadThatFailed)
{
    store("red onion");
    ASSERT_TRUE(open(""));
    EXPECT_EQ(_database.getUserVersion(), -1);
    EXPECT_TRUE(RecordSet(_database.getHandle()).query("pragma key = 'red onion'"));
    _diagnostics.clear();
    EXPECT_EQ(_database.getUserVersion(), 0);
    EXPECT_THAT(_diagnostics.events(), IsEmpty());
}

TEST_F(EncryptionTest, FileWithoutAKeyIsPlainText)
{
    store("");
    _database.close();
    EXPECT_EQ(inPlainText(_file), secrets);
}

TEST_F(EncryptionTest, FileWithAKeyHasNoPlainTextInIt)
{
    store("red onion");
    _database.close();
    EXPECT_GE(test::readFile(_file).size(), 2048u);
    EXPECT_THAT(inPlainText(_file), IsEmpty());
}

// What a transaction has to be able to put back: the row before its change.
class JournalTest : public EncryptionTest {
protected:
    void changeWithoutCommit(const std::string& key)
    {
        store(key);
        Table products(_database.getHandle(), "product", test::product_columns);
        ASSERT_TRUE(_database.transactionBegin());
        ASSERT_TRUE(products.deleteRecords(""));
    }

    std::string journal() const
    {
        return _file + "-journal";
    }
};

TEST_F(JournalTest, OfAFileWithoutAKeyIsPlainText)
{
    changeWithoutCommit("");
    EXPECT_THAT(inPlainText(journal()), UnorderedElementsAre(secrets[0]));
}

TEST_F(JournalTest, OfAFileWithAKeyHasNoPlainTextInIt)
{
    changeWithoutCommit("red onion");
    EXPECT_GE(test::readFile(journal()).size(), 512u);
    EXPECT_THAT(inPlainText(journal()), IsEmpty());
}

TEST_F(EncryptionTest, KeyIsLoggedLikeAnyStatementAtDebug2)
{
    _diagnostics.setLevel(8);
    open("red onion");
    EXPECT_THAT(_diagnostics.messages("[DEBUG2]"), ElementsAre("stmt='pragma key = 'red onion''"));
}

TEST_F(EncryptionTest, KeyIsNotLoggedBelowDebug2)
{
    _diagnostics.setLevel(7);
    open("red onion");
    EXPECT_THAT(_diagnostics.messages(), ElementsAre("Opening database '" + _file + "'"));
}

} // namespace
