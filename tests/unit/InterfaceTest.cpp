// Every operation of the public headers by its exact signature, and what converts into what.

#include "Columns.h"
#include "Diagnostics.h"
#include "Rows.h"
#include "SqlDatabase.h"
#include "SqlTable.h"
#include "Sqlite.h"

#include <gmock/gmock.h>

#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using sql::Database;
using sql::Field;
using sql::field_type;
using sql::FieldSet;
using sql::integer;
using sql::Record;
using sql::RecordSet;
using sql::string;
using sql::Table;
using sql::Time;
using sql::Value;
using test::product_columns;
using testing::ElementsAre;
using testing::IsEmpty;

// Takes a pointer to a function or member of this very type, of whatever overloads there are.
template <typename Signature> constexpr bool has(Signature)
{
    return true;
}

static_assert(std::is_same<string, std::string>::value, "");
static_assert(std::is_same<integer, long long>::value, "");
static_assert(sizeof(field_type) == 4 && sizeof(Database::AccessMode) == 4, "");

static_assert(has<string (*)(field_type)>(&sql::type2Str), "");
static_assert(has<string (*)(const string&)>(&sql::quoteStr), "");
static_assert(has<string& (*)(string&)>(&sql::trimleft), "");
static_assert(has<string& (*)(string&)>(&sql::trimright), "");
static_assert(has<string& (*)(string&)>(&sql::trim), "");
static_assert(has<string (*)(const string&)>(&sql::trim), "");
static_assert(has<void (*)(string, std::vector<string>&, const char*)>(&sql::listToVector), "");
static_assert(has<string (*)(int)>(&sql::intToStr), "");
static_assert(has<string (*)(integer)>(&sql::intToStr), "");
static_assert(has<const char* (*)(int)>(&sql::sqliteRc2Str), "");
static_assert(has<int (*)(sqlite3*, const string&)>(&sql::queryNumber), "");
static_assert(has<bool (*)(sqlite3*, const string&)>(&sql::runOneStepSqlStmt), "");

static_assert(std::is_default_constructible<Time>::value, "");
static_assert(std::is_convertible<integer, Time>::value, "");
static_assert(has<Time& (Time::*)(const Time&)>(&Time::operator=), "");
static_assert(has<Time (*)()>(&Time::now), "");
static_assert(has<bool (Time::*)(const Time&)>(&Time::operator==), "");
static_assert(has<double (Time::*)(Time&)>(&Time::diff), "");
static_assert(has<integer (Time::*)() const>(&Time::asInteger), "");
static_assert(has<time_t (Time::*)() const>(&Time::getTime), "");
static_assert(has<string (Time::*)(const char*) const>(&Time::format), "");
static_assert(has<string (Time::*)() const>(&Time::asString), "");
static_assert(has<string (Time::*)() const>(&Time::asTimeString), "");
static_assert(has<string (Time::*)() const>(&Time::asDateString), "");
static_assert(has<void (Time::*)(integer)>(&Time::addValue), "");
static_assert(has<void (Time::*)(integer)>(&Time::addMinutes), "");
static_assert(has<void (Time::*)(integer)>(&Time::addHours), "");
static_assert(has<void (Time::*)(integer)>(&Time::addDays), "");

static_assert(std::is_default_constructible<Database>::value, "");
static_assert(!std::is_copy_constructible<Database>::value, "");
static_assert(!std::is_copy_assignable<Database>::value, "");
static_assert(
    has<bool (Database::*)(const string&, Database::AccessMode, bool, int)>(&Database::open), "");
static_assert(has<void (Database::*)()>(&Database::close), "");
static_assert(has<bool (Database::*)() const>(&Database::isOpen), "");
static_assert(has<sqlite3* (Database::*)()>(&Database::getHandle), "");
static_assert(has<bool (Database::*)()>(&Database::transactionBegin), "");
static_assert(has<bool (Database::*)()>(&Database::transactionCommit), "");
static_assert(has<bool (Database::*)()>(&Database::transactionRollback), "");
static_assert(has<int (Database::*)() const>(&Database::getUserVersion), "");
static_assert(has<bool (Database::*)(unsigned int)>(&Database::setUserVersion), "");

static_assert(std::is_default_constructible<Field>::value, "");
static_assert(std::is_constructible<Field, const string&, field_type, int>::value, "");
static_assert(has<Field& (Field::*)(const Field&)>(&Field::operator=), "");
static_assert(has<bool (Field::*)() const>(&Field::isEndingField), "");
static_assert(has<field_type (Field::*)() const>(&Field::getType), "");
static_assert(has<int (Field::*)() const>(&Field::getIndex), "");
static_assert(has<string (Field::*)() const>(&Field::getName), "");
static_assert(has<bool (Field::*)() const>(&Field::isPrimaryKey), "");
static_assert(has<bool (Field::*)() const>(&Field::isNotNull), "");
static_assert(has<bool (Field::*)() const>(&Field::isUnique), "");
static_assert(has<string (Field::*)() const>(&Field::getTypeStr), "");
static_assert(has<string (Field::*)() const>(&Field::getFlags), "");
static_assert(has<string (Field::*)() const>(&Field::getDefinition), "");
static_assert(has<string (Field::*)() const>(&Field::dump), "");

static_assert(!std::is_default_constructible<FieldSet>::value, "");
static_assert(std::is_convertible<const Field*, FieldSet>::value, "");
static_assert(std::is_convertible<const std::vector<Field>&, FieldSet>::value, "");
static_assert(has<FieldSet& (FieldSet::*)(const FieldSet&)>(&FieldSet::operator=), "");
static_assert(has<bool (FieldSet::*)(const Field*)>(&FieldSet::initFieldSet), "");
static_assert(has<int (FieldSet::*)() const>(&FieldSet::count), "");
static_assert(has<const Field* (FieldSet::*)(int) const>(&FieldSet::getByIndex), "");
static_assert(has<const Field* (FieldSet::*)(const string&) const>(&FieldSet::getByName), "");
static_assert(has<string (FieldSet::*)() const>(&FieldSet::getKeyIdName), "");
static_assert(has<string (FieldSet::*)() const>(&FieldSet::getDefinition), "");
static_assert(has<string (FieldSet::*)() const>(&FieldSet::toSql), "");
static_assert(has<string (FieldSet::*)() const>(&FieldSet::dump), "");

static_assert(!std::is_default_constructible<Value>::value, "");
static_assert(std::is_convertible<field_type, Value>::value, "");
static_assert(!std::is_constructible<Value, const char*, field_type>::value, "");
static_assert(has<Value& (Value::*)(const Value&)>(&Value::operator=), "");
static_assert(has<void (Value::*)(const char*, field_type)>(&Value::setValue), "");
static_assert(has<void (Value::*)()>(&Value::setNull), "");
static_assert(has<void (Value::*)(const string&)>(&Value::setString), "");
static_assert(has<void (Value::*)(integer)>(&Value::setInteger), "");
static_assert(has<void (Value::*)(double)>(&Value::setDouble), "");
static_assert(has<void (Value::*)(bool)>(&Value::setBool), "");
static_assert(has<void (Value::*)(Time)>(&Value::setTime), "");
static_assert(has<bool (Value::*)() const>(&Value::isNull), "");
static_assert(has<field_type (Value::*)() const>(&Value::getType), "");
static_assert(has<integer (Value::*)() const>(&Value::asInteger), "");
static_assert(has<double (Value::*)() const>(&Value::asDouble), "");
static_assert(has<bool (Value::*)() const>(&Value::asBool), "");
static_assert(has<Time (Value::*)() const>(&Value::asTime), "");
static_assert(has<string (Value::*)() const>(&Value::asString), "");
static_assert(has<string (Value::*)() const>(&Value::toString), "");
static_assert(has<string (Value::*)(bool) const>(&Value::dump), "");
static_assert(has<bool (Value::*)(const Value&) const>(&Value::equals), "");
static_assert(has<string (Value::*)(field_type) const>(&Value::toSql), "");

static_assert(!std::is_default_constructible<Record>::value, "");
static_assert(std::is_convertible<const FieldSet&, Record>::value, "");
static_assert(std::is_convertible<const Record*, Record>::value, "");
static_assert(std::is_nothrow_move_constructible<Record>::value, "");
static_assert(std::is_nothrow_move_assignable<Record>::value, "");
static_assert(!std::is_constructible<Record, const FieldSet&, int, const char* const*>::value, "");
static_assert(has<Record& (Record::*)(const Record&)>(&Record::operator=), "");
static_assert(has<const FieldSet* (Record::*)() const>(&Record::fields), "");
static_assert(has<int (Record::*)() const>(&Record::columnCount), "");
static_assert(has<bool (Record::*)(int, const char*, field_type)>(&Record::initColumnValue), "");
static_assert(has<Value* (Record::*)(int)>(&Record::getValue), "");
static_assert(has<const Value* (Record::*)(int) const>(&Record::getValue), "");
static_assert(has<Value* (Record::*)(const string&)>(&Record::getValue), "");
static_assert(has<const Value* (Record::*)(const string&) const>(&Record::getValue), "");
static_assert(has<const Value* (Record::*)() const>(&Record::getKeyIdValue), "");
static_assert(has<const Field* (Record::*)(const string&) const>(&Record::fieldByName), "");
static_assert(has<void (Record::*)(int)>(&Record::setNull), "");
static_assert(has<void (Record::*)(const string&)>(&Record::setNull), "");
static_assert(has<void (Record::*)(int, const string&)>(&Record::setString), "");
static_assert(has<void (Record::*)(const string&, const string&)>(&Record::setString), "");
static_assert(has<void (Record::*)(int, integer)>(&Record::setInteger), "");
static_assert(has<void (Record::*)(const string&, integer)>(&Record::setInteger), "");
static_assert(has<void (Record::*)(int, double)>(&Record::setDouble), "");
static_assert(has<void (Record::*)(const string&, double)>(&Record::setDouble), "");
static_assert(has<void (Record::*)(int, bool)>(&Record::setBool), "");
static_assert(has<void (Record::*)(const string&, bool)>(&Record::setBool), "");
static_assert(has<void (Record::*)(int, Time)>(&Record::setTime), "");
static_assert(has<void (Record::*)(const string&, Time)>(&Record::setTime), "");
static_assert(has<bool (Record::*)(const Record*, const string&) const>(&Record::equalsColumnValue),
              "");
static_assert(has<bool (Record::*)(const Record*) const>(&Record::equalsValues), "");
static_assert(has<string (Record::*)() const>(&Record::toString), "");
static_assert(has<string (Record::*)(bool) const>(&Record::dump), "");
static_assert(has<string (Record::*)() const>(&Record::toSql), "");
static_assert(has<string (Record::*)(const string&) const>(&Record::toSqlInsert), "");
static_assert(has<string (Record::*)(const string&) const>(&Record::toSqlUpdate), "");

static_assert(std::is_default_constructible<RecordSet>::value, "");
static_assert(std::is_convertible<sqlite3*, RecordSet>::value, "");
static_assert(std::is_constructible<RecordSet, sqlite3*, const FieldSet&>::value, "");
static_assert(std::is_constructible<RecordSet, sqlite3*, const Field*>::value, "");
static_assert(!std::is_copy_constructible<RecordSet>::value, "");
static_assert(!std::is_copy_assignable<RecordSet>::value, "");
static_assert(has<bool (RecordSet::*)(sqlite3*, const Field*)>(&RecordSet::initRecordSet), "");
static_assert(has<void (RecordSet::*)()>(&RecordSet::close), "");
static_assert(has<bool (RecordSet::*)(const string&)>(&RecordSet::query), "");
static_assert(has<bool (RecordSet::*)() const>(&RecordSet::isResultOk), "");
static_assert(has<int (RecordSet::*)() const>(&RecordSet::count), "");
static_assert(has<Record* (RecordSet::*)(int)>(&RecordSet::getRecord), "");
static_assert(has<const Record* (RecordSet::*)(int) const>(&RecordSet::getRecord), "");
static_assert(has<const Record* (RecordSet::*)() const>(&RecordSet::getTopRecord), "");
static_assert(has<const Value* (RecordSet::*)() const>(&RecordSet::getTopRecordFirstValue), "");
static_assert(has<const FieldSet* (RecordSet::*)() const>(&RecordSet::fields), "");
static_assert(has<string (RecordSet::*)() const>(&RecordSet::toString), "");
static_assert(has<int (*)(void*, int, char**, char**)>(&RecordSet::on_next_record), "");

static_assert(!std::is_default_constructible<Table>::value, "");
static_assert(std::is_convertible<const string&, Table>::value, "");
static_assert(std::is_constructible<Table, sqlite3*, const string&, const Field*>::value, "");
static_assert(std::is_constructible<Table, sqlite3*, const string&, const FieldSet&>::value, "");
static_assert(!std::is_copy_constructible<Table>::value, "");
static_assert(!std::is_copy_assignable<Table>::value, "");
static_assert(has<bool (Table::*)(sqlite3*, const Field*)>(&Table::initTable), "");
static_assert(has<string (Table::*)() const>(&Table::name), "");
static_assert(has<const FieldSet* (Table::*)() const>(&Table::fields), "");
static_assert(has<sqlite3* (Table::*)()>(&Table::getHandle), "");
static_assert(has<bool (Table::*)()>(&Table::exists), "");
static_assert(has<bool (Table::*)()>(&Table::create), "");
static_assert(has<bool (Table::*)()>(&Table::remove), "");
static_assert(has<bool (Table::*)()>(&Table::truncate), "");
static_assert(has<int (Table::*)() const>(&Table::totalRecordCount), "");
static_assert(has<string (Table::*)() const>(&Table::getDefinition), "");
static_assert(has<string (Table::*)() const>(&Table::toString), "");
static_assert(has<bool (Table::*)()>(&Table::open), "");
static_assert(has<bool (Table::*)(const string&)>(&Table::open), "");
static_assert(has<bool (Table::*)(const string&, const string&)>(&Table::open), "");
static_assert(has<bool (Table::*)(const string&)>(&Table::query), "");
static_assert(has<int (Table::*)() const>(&Table::recordCount), "");
static_assert(has<Record* (Table::*)(int)>(&Table::getRecord), "");
static_assert(has<Record* (Table::*)()>(&Table::getTopRecord), "");
static_assert(has<Record* (Table::*)(string)>(&Table::getRecordByKeyId), "");
static_assert(has<Record* (Table::*)(integer)>(&Table::getRecordByKeyId), "");
static_assert(has<bool (Table::*)(string)>(&Table::hasRecordWithKeyId), "");
static_assert(has<bool (Table::*)(integer)>(&Table::hasRecordWithKeyId), "");
static_assert(has<bool (Table::*)(const Record&)>(&Table::addRecord), "");
static_assert(has<bool (Table::*)(const Record&)>(&Table::updateRecord), "");
static_assert(has<bool (Table::*)(string, const Record&)>(&Table::addOrUpdateRecord), "");
static_assert(has<bool (Table::*)(integer, const Record&)>(&Table::addOrUpdateRecord), "");
static_assert(has<bool (Table::*)(string)>(&Table::deleteRecord), "");
static_assert(has<bool (Table::*)(integer)>(&Table::deleteRecord), "");
static_assert(has<bool (Table::*)(const string&)>(&Table::deleteRecords), "");
static_assert(has<bool (Table::*)(Table&)>(&Table::copyRecords), "");
static_assert(has<bool (Table::*)(Table&)>(&Table::backup), "");

// Copies are operations of the interface; those that a program moves are copies but for rows.
template <typename T> constexpr bool copiesWhenMoved()
{
    return std::is_copy_constructible<T>::value && std::is_copy_assignable<T>::value
           && !std::is_trivially_copy_constructible<T>::value
           && !std::is_nothrow_move_constructible<T>::value
           && !std::is_nothrow_move_assignable<T>::value;
}
static_assert(copiesWhenMoved<Time>() && copiesWhenMoved<Field>() && copiesWhenMoved<FieldSet>()
                  && copiesWhenMoved<Value>(),
              "");

const std::vector<Field> field_vector = {Field("id", sql::type_int, sql::flag_primary_key),
                                         Field("name", sql::type_text, sql::flag_none)};

class InterfaceTest : public testing::Test {
protected:
    InterfaceTest() : _table(_connection, "product", product_columns)
    {
        _connection.run("create table product (id integer primary key, name text, price real);"
                        "insert into product values (7, 'tea', 2.5)");
        EXPECT_TRUE(_table.open());
    }

    ~InterfaceTest() override
    {
        EXPECT_THAT(_diagnostics.events(), IsEmpty());
    }

    test::Diagnostics _diagnostics;
    test::Connection _connection;
    Table _table;
};

TEST_F(InterfaceTest, NoPrivateOperationBearsTheNameOfAPublicOne)
{
    const auto values = &Record::toSql;
    const auto names = &FieldSet::toSql;
    const Record record = _table.getRecord(0);
    EXPECT_EQ((record.*values)(), "7, 'tea', 2.5");
    EXPECT_EQ((record.fields()->*names)(), "id, name, price");
}

TEST_F(InterfaceTest, ARowHeldIsARecordForAWrite)
{
    _table.getTopRecord()->setInteger("id", 8);
    EXPECT_TRUE(_table.addRecord(_table.getTopRecord()));
    EXPECT_EQ(_connection.rows("select * from product"), "7|tea|2.5\n8|tea|2.5");
}

TEST_F(InterfaceTest, ARowHeldBecomesARecord)
{
    const Record record = _table.getRecord(0);
    std::vector<Record> records;
    records.push_back(_table.getRecord(0));
    EXPECT_EQ(record.toString(), "7|tea|2.5");
    EXPECT_EQ(records.front().toString(), "7|tea|2.5");
}

TEST_F(InterfaceTest, AFieldSetBecomesARecordOfNulls)
{
    const Record record = *_table.fields();
    EXPECT_EQ(record.toString(), "null|null|null");
}

TEST_F(InterfaceTest, ATypeBecomesANullValue)
{
    const Value value = sql::type_int;
    EXPECT_EQ(value.dump(true), "null (integer)");
    EXPECT_TRUE(value.equals(sql::type_text));
}

TEST_F(InterfaceTest, ColumnsBecomeAFieldSet)
{
    const FieldSet fromArray = product_columns;
    const FieldSet fromVector = field_vector;
    EXPECT_EQ(fromArray.toSql(), "id, name, price");
    EXPECT_EQ(fromVector.toSql(), "id, name");
}

TEST_F(InterfaceTest, AVectorOfFieldsIsATableOrARecordSet)
{
    const Table table(_connection, "t", field_vector);
    const RecordSet set(_connection, field_vector);
    EXPECT_EQ(table.getDefinition(), "CREATE TABLE t (id INTEGER PRIMARY KEY, name TEXT)");
    EXPECT_EQ(set.fields()->toSql(), "id, name");
}

TEST_F(InterfaceTest, AConnectionBecomesARecordSet)
{
    sqlite3* const db = _connection;
    RecordSet set = db;
    EXPECT_TRUE(set.query("select * from product"));
    EXPECT_EQ(set.count(), 1);
}

TEST_F(InterfaceTest, ANumberBecomesATime)
{
    const Time time = 60;
    EXPECT_EQ(time.asInteger(), 60);
}

// What each object shows of itself, and one that differs from it.
string shown(const Time& time)
{
    return sql::intToStr(time.asInteger());
}

string shown(const Field& field)
{
    return field.dump();
}

string shown(const FieldSet& fields)
{
    return fields.dump();
}

string shown(const Value& value)
{
    return value.dump(true);
}

string shown(const Record& record)
{
    return record.dump(true);
}

template <typename T> T* sameAs(T& object)
{
    return &object;
}

// Copies, and moves from, one object into another that differs, and into itself.
template <typename T> void expectCopies(const T& original, const T& other)
{
    const string text = shown(original);
    ASSERT_NE(shown(other), text);
    T source(original);
    EXPECT_EQ(shown(source), text);

    T target(other);
    EXPECT_EQ(&(target = source), &target);
    EXPECT_EQ(shown(target), text);
    EXPECT_EQ(shown(source), text);

    EXPECT_EQ(&(target = *sameAs(target)), &target);
    EXPECT_EQ(shown(target), text);
    EXPECT_EQ(&(target = std::move(*sameAs(target))), &target);
    EXPECT_EQ(shown(target), text);

    T moved(std::move(source));
    EXPECT_EQ(shown(moved), text);
    target = other;
    target = std::move(moved);
    EXPECT_EQ(shown(target), text);
}

TEST_F(InterfaceTest, TimesAreCopied)
{
    expectCopies(Time(60), Time(61));
}

TEST_F(InterfaceTest, FieldsAreCopied)
{
    expectCopies(*_table.fields()->getByIndex(1),
                 Field("longer than a short text", sql::type_bool, 7));
}

TEST_F(InterfaceTest, FieldSetsAreCopied)
{
    expectCopies(*_table.fields(), FieldSet(field_vector));
}

TEST_F(InterfaceTest, ValuesAreCopied)
{
    Value text(sql::type_text);
    text.setString("a text that needs memory of its own");
    expectCopies(text, Value(sql::type_int));
}

TEST_F(InterfaceTest, RecordsAreCopied)
{
    const FieldSet others = field_vector;
    expectCopies(Record(_table.getRecord(0)), Record(others));
}

TEST_F(InterfaceTest, ARecordIsMovedWithItsCells)
{
    Record record = _table.getRecord(0);
    const Value* const cell = record.getValue(0);
    Record moved(std::move(record));
    EXPECT_EQ(moved.getValue(0), cell);
    Record assigned(*_table.fields());
    assigned = std::move(moved);
    EXPECT_EQ(assigned.getValue(0), cell);
}

TEST_F(InterfaceTest, OthersCopyWhenMovedFrom)
{
    Value value(sql::type_text);
    value.setString("a text that needs memory of its own");
    const Value copy(std::move(value));
    EXPECT_EQ(value.asString(), copy.asString()); // NOLINT(bugprone-use-after-move)
    FieldSet fields = product_columns;
    const FieldSet fieldsCopy(std::move(fields));
    EXPECT_EQ(fields.dump(), fieldsCopy.dump()); // NOLINT(bugprone-use-after-move)
    Field field("a name that needs memory of its own", sql::type_text, sql::flag_none);
    const Field fieldCopy(std::move(field));
    EXPECT_EQ(field.dump(), fieldCopy.dump()); // NOLINT(bugprone-use-after-move)
}

} // namespace
