#include "Job.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <iterator>
#include <new>
#include <tuple>
#include <utility>

namespace test {

using testing::IsEmpty;

typedef std::vector<Step> Steps;

// --- The steps

std::string nameOf(int version)
{
    return "version " + std::to_string(version) + " "
           + std::string(version % 4 == 0 ? 1200 : 300, 'x');
}

namespace {

bool found(const sql::Record* record)
{
    return record != nullptr;
}

bool found(const std::optional<std::string>& record)
{
    return record.has_value();
}

Step transaction(const char* name, const char* word)
{
    return {name, [word](auto& shop) {
                return shop.transact(word);
            }};
}

Step begin()
{
    return transaction("transactionBegin", "BEGIN");
}

Step commit()
{
    return transaction("transactionCommit", "COMMIT");
}

// As a program does that has failed to commit.
Step rollBack()
{
    return {"transactionRollback", [](auto& shop) {
                return !shop.inTransaction() || shop.transact("ROLLBACK");
            }};
}

Step add(int id, int version)
{
    return {"addRecord", [row = good(id, nameOf(version))](auto& shop) {
                return shop.product.addRecord(row);
            }};
}

Step update(int id, int version)
{
    return {"updateRecord", [row = good(id, nameOf(version))](auto& shop) {
                return shop.product.updateRecord(row);
            }};
}

Step addOrUpdate(int id, int version)
{
    return {"addOrUpdateRecord by integer", [id, row = good(id, nameOf(version))](auto& shop) {
                return shop.product.addOrUpdateRecord(sql::integer(id), row);
            }};
}

Step addOrUpdateByText(int id, int version)
{
    return {"addOrUpdateRecord by text",
            [key = std::to_string(id), row = good(id, nameOf(version))](auto& shop) {
                return shop.product.addOrUpdateRecord(key, row);
            }};
}

Step userVersion(unsigned int version)
{
    return {"setUserVersion", [version](auto& shop) {
                return shop.setUserVersion(version);
            }};
}

Step backup()
{
    return {"backup", [](auto& shop) {
                return shop.archive.backup(shop.product);
            }};
}

Step create()
{
    return {"create", [](auto& shop) {
                return shop.product.create();
            }};
}

Step open()
{
    return {"open", [](auto& shop) {
                return shop.product.open();
            }};
}

} // namespace

Steps operator+(Steps first, const Steps& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

Step setting(const std::string& pragma)
{
    return {pragma, [pragma](auto& shop) {
                return shop.query(pragma);
            }};
}

Steps filling(int rows)
{
    Steps steps = {create(), begin()};
    for (int id = 1; id <= rows; ++id)
        steps.push_back(add(id, 1));
    return steps + Steps{commit(), rollBack()};
}

Steps changing()
{
    return {
        userVersion(3),
        update(3, 2),
        addOrUpdate(4, 4),
        addOrUpdate(20, 1),
        addOrUpdateByText(21, 1),
        {"deleteRecord by integer",
         [](auto& shop) {
             return shop.product.deleteRecord(sql::integer(5));
         }},
        {"deleteRecord by text",
         [](auto& shop) {
             return shop.product.deleteRecord(std::string("2"));
         }},
        add(22, 1),
        begin(),
        update(1, 3),
        update(6, 3),
        {"deleteRecords",
         [](auto& shop) {
             return shop.product.deleteRecords("id > 20");
         }},
        add(23, 8),
        commit(),
        rollBack(),
        begin(),
        update(3, 4),
        add(24, 5),
        rollBack(),
    };
}

Steps backingUp()
{
    return {begin(), backup(), commit(), rollBack()};
}

Steps reading()
{
    return {
        {"getUserVersion",
         [](auto& shop) {
             return shop.getUserVersion();
         }},
        {"exists",
         [](auto& shop) {
             return shop.product.exists();
         }},
        open(),
        {"open where price > 2 order by name desc",
         [](auto& shop) {
             return shop.product.open("price > 2", "name desc, id");
         }},
        {"getRecordByKeyId by integer",
         [](auto& shop) {
             return found(shop.product.getRecordByKeyId(sql::integer(6)));
         }},
        {"getRecordByKeyId by text",
         [](auto& shop) {
             return found(shop.product.getRecordByKeyId(std::string("3")));
         }},
        {"hasRecordWithKeyId by integer",
         [](auto& shop) {
             return shop.product.hasRecordWithKeyId(sql::integer(4));
         }},
        {"hasRecordWithKeyId by text",
         [](auto& shop) {
             return shop.product.hasRecordWithKeyId(std::string("77"));
         }},
        {"totalRecordCount",
         [](auto& shop) {
             return shop.product.totalRecordCount();
         }},
    };
}

Steps removing()
{
    return {
        {"truncate",
         [](auto& shop) {
             return shop.archive.truncate();
         }},
        {"remove",
         [](auto& shop) {
             return shop.archive.remove();
         }},
    };
}

Steps wholeJob()
{
    const Steps copying = {
        open(),
        {"deleteRecords without a condition",
         [](auto& shop) {
             return shop.archive.deleteRecords("");
         }},
        {"copyRecords",
         [](auto& shop) {
             return shop.archive.copyRecords(shop.product);
         }},
    };
    return Steps{setting("pragma page_size = 512")} + filling(6) + changing()
           + Steps{backup(), update(3, 5)} + backingUp() + copying + reading() + removing();
}

Steps onceEach(const Steps& steps)
{
    Steps chosen;
    std::set<std::string> names;
    std::copy_if(steps.begin(), steps.end(), std::back_inserter(chosen),
                 [&](const Step& step) { return names.insert(step.name).second; });
    return chosen;
}

std::vector<Change> changesOf(const Steps& steps)
{
    Connection db;
    TwinShop shop;
    shop.use(db);
    std::vector<Change> changes;
    Change change;
    std::string before = contents(db);
    for (const Step& step : steps) {
        EXPECT_EQ(step.plain(shop), "true") << step.name;
        change.steps.push_back(step);
        change.after = shop.inTransaction() ? before : contents(db);
        if (change.after == before)
            continue;
        before = change.after;
        changes.push_back(std::move(change));
        change = Change();
    }
    return changes;
}

// --- The job

bool Job::State::operator<(const State& other) const
{
    return std::tie(now, begun) < std::tie(other.now, other.begun);
}

Job::Job(const std::string& file, Texts reasons, Watch watch, bool failsLate)
    : _file(file), _reasons(std::move(reasons)), _watch(std::move(watch)), _failsLate(failsLate),
      _shop(file)
{
    Connection empty;
    _possible = {{contents(empty), ""}};
}

Diagnostics& Job::diagnostics()
{
    return _diagnostics;
}

bool Job::open()
{
    const bool opened = perform("open", [this] { _result = result(_shop.open()); });
    EXPECT_EQ(_result, result(opened));
    EXPECT_EQ(_shop.database.isOpen(), opened);
    Texts reports;
    for (const std::string& reason : _reasons)
        reports.push_back(report::notOpened(_file, reason).back());
    EXPECT_LE(_errors.size(), 1U);
    EXPECT_THAT(reports, testing::IsSupersetOf(_errors));
    _held.assign(3, {});
    return opened && perform("Table", [this] {
               const sql::Table product(_shop.handle(), "product", goods_columns);
               EXPECT_FALSE(product.name().empty());
           });
}

void Job::take(const Steps& steps)
{
    for (const Step& step : steps)
        take(step);
}

void Job::useAgain()
{
    _watch = [](const std::string&, bool) {
    };
    if (!_shop.database.isOpen()) {
        EXPECT_TRUE(open());
    }
    const int failedBefore = _failed;
    take({rollBack(), create(), addOrUpdate(50, 1), begin(), update(50, 2), rollBack(),
          test::open()});
    EXPECT_EQ(_failed, failedBefore);
}

void Job::close()
{
    _plain.reset();
    _loaded.reset();
    EXPECT_TRUE(perform("close", [this] { _shop.close(); }));
    EXPECT_EQ(_shop.handle(), nullptr);
}

void Job::verifyFile() const
{
    EXPECT_THAT(possible(), testing::Contains(contents(_file)));
}

std::set<std::string> Job::possible() const
{
    std::set<std::string> committed;
    for (const State& state : _possible)
        committed.insert(state.begun.empty() ? state.now : state.begun);
    return committed;
}

int Job::operations() const
{
    return _operations;
}

int Job::failed() const
{
    return _failed;
}

const std::set<std::string>& Job::failures() const
{
    return _failures;
}

// --- One operation

// True unless it has left a report or std::bad_alloc.
bool Job::perform(const std::string& operation, const std::function<void()>& call)
{
    SCOPED_TRACE(operation);
    _result.clear();
    _passedOn = false;
    _diagnostics.clear();
    _watch(operation, true);
    try {
        call();
    } catch (const std::bad_alloc&) {
        _passedOn = true;
    }
    _watch(operation, false);
    _errors.clear();
    for (const std::string& event : _diagnostics.events()) {
        if (event.compare(0, 7, "[ERROR]") == 0)
            _errors.push_back(event);
    }
    EXPECT_THAT(_diagnostics.assertions(), IsEmpty());
    if (_shop.handle() != nullptr) {
        EXPECT_EQ(sqlite3_next_stmt(_shop.handle(), nullptr), nullptr);
    }
    EXPECT_FALSE(_passedOn && !_errors.empty());
    ++_operations;
    const bool done = !_passedOn && _errors.empty();
    if (!done) {
        ++_failed;
        _failures.insert(operation);
    }
    return done;
}

void Job::take(const Step& step)
{
    perform(step.name, [&] { _result = step.library(_shop); });
    std::set<State> then;
    _expected.clear();
    for (const State& state : _possible)
        tryCourses(state, step, then);
    if (then.empty())
        ADD_FAILURE() << step.name << " gave " << outcome(_result, _errors) << "\ninstead of"
                      << _expected;
    else
        _possible = then;
    _held = {rowsOf(_shop.product), rowsOf(_shop.supplier), rowsOf(_shop.archive)};
}

// All the ways in which it may have gone on from there.
void Job::tryCourses(const State& state, const Step& step, std::set<State>& then)
{
    Course course = {_errors, _reasons};
    std::set<State> straight;
    tryCourse(state, step, course, straight);
    const int statements = _twin.statements();
    const int refused = _twin.refused();
    if (_passedOn) {
        for (course.interruptedAt = 0; course.interruptedAt < statements; ++course.interruptedAt)
            tryCourse(state, step, course, then);
        return;
    }
    then.insert(straight.begin(), straight.end());
    if (refused == 0)
        return;
    if (step.name == "backup") { // looks for its table twice
        course.spared = 1;
        tryCourse(state, step, course, then);
        course.spared = 0;
    }
    const int ends = !state.begun.empty() && !_shop.inTransaction() ? refused : 0;
    const unsigned effects = _failsLate ? 1U << refused : 1U;
    for (int way = 1; way < static_cast<int>(effects) * (ends + 1); ++way) {
        course.effective = static_cast<unsigned>(way) % effects;
        course.endsTransactionAt = way / static_cast<int>(effects) - 1;
        tryCourse(state, step, course, then);
    }
}

void Job::tryCourse(const State& state, const Step& step, const Course& course,
                    std::set<State>& then)
{
    load(state);
    _twin.follow(course);
    _twin.product.hold(_held[0]);
    _twin.supplier.hold(_held[1]);
    _twin.archive.hold(_held[2]);
    std::string expected;
    try {
        expected = step.plain(_twin);
    } catch (const Twin::Interrupted&) {
    }
    Texts errors;
    for (const std::string& event : _twin.events()) {
        if (event.compare(0, 7, "[ERROR]") == 0)
            errors.push_back(event);
    }
    if (_twin.hasWritten())
        *_loaded = {contents(*_plain), ""};
    if (_twin.inTransaction())
        _loaded->begun = state.begun.empty() ? state.now : state.begun;
    if ((_passedOn || expected == _result) && errors == _errors
        && _twin.inTransaction() == _shop.inTransaction() && holdsTheSame())
        then.insert(*_loaded);
    else
        _expected += "\n" + outcome(expected, errors)
                     + (_twin.inTransaction() ? ", within a transaction" : "")
                     + (holdsTheSame() ? "" : ", with other rows");
}

void Job::load(const State& state)
{
    if (_loaded && !(*_loaded < state) && !(state < *_loaded))
        return;
    _plain = std::make_unique<Connection>();
    _twin.use(*_plain);
    _loaded = std::make_unique<State>(state);
    _plain->run(state.begun.empty() ? state.now : state.begun);
    if (state.begun.empty())
        return;
    _plain->run("begin");
    _plain->run(_plain->rows("select 'drop table ' || name || ';' from sqlite_master"
                             " where type = 'table'"));
    _plain->run(state.now);
}

namespace {

// SQLite may have lacked the memory to write a number of the last row as text: it delivers a null
// instead, and fails only after this row.
bool isPart(const std::vector<TwinRow>& rows, const std::vector<TwinRow>& all)
{
    if (rows.empty() || rows.size() > all.size())
        return rows.empty();
    const TwinRow& whole = all[rows.size() - 1];
    for (std::size_t i = 0; i < whole.size(); ++i) {
        if (rows.back()[i].has_value() && rows.back()[i] != whole[i])
            return false;
    }
    return std::equal(rows.begin(), rows.end() - 1, all.begin());
}

} // namespace

// All rows, or the first ones when a load has failed.
bool Job::holdsTheSame()
{
    const auto isSame = [](sql::Table& table, const TwinTable& twin) {
        const std::vector<TwinRow> rows = rowsOf(table);
        return twin.holdsAll() ? rows == twin.rows() : isPart(rows, twin.rows());
    };
    return isSame(_shop.product, _twin.product) && isSame(_shop.supplier, _twin.supplier)
           && isSame(_shop.archive, _twin.archive);
}

std::string Job::outcome(const std::string& result, const Texts& errors) const
{
    return result + " " + testing::PrintToString(errors);
}

// --- All failures

ShortageTest::ShortageTest(int never) : _never(never)
{
}

// The job without failures shows which operation needs which allocations.
void ShortageTest::plan()
{
    EXPECT_FALSE(work(_never, false));
    EXPECT_THAT(_failures, IsEmpty());
    _planned = true;
}

void ShortageTest::note(const std::string& operation, int allocations)
{
    if (_planned)
        return;
    if (_ends.empty() ? allocations > 0 : allocations > _ends.back())
        _allocating.insert(operation);
    _ends.push_back(allocations);
}

std::vector<int> ShortageTest::cases(bool all) const
{
    constexpr int some = 4;
    std::vector<int> chosen;
    int before = 0;
    for (const int end : _ends) {
        const int count = end - before;
        const int parts = all || count <= some ? count : some;
        for (int i = 0; i < parts; ++i)
            chosen.push_back(parts == 1 ? end : before + 1 + i * (count - 1) / (parts - 1));
        before = end;
    }
    return chosen;
}

void ShortageTest::workWithEveryFailure(bool lasts, bool all)
{
    plan();
    const std::vector<int> chosen = cases(all);
    // Farther apart some operation is left out.
    const std::size_t step = std::min(stride(1), lasts ? 5 : 20);
    for (std::size_t i = 0; i < chosen.size() && !HasFailure(); i += step) {
        SCOPED_TRACE(chosen[i]);
        EXPECT_TRUE(work(chosen[i], lasts));
    }
    RecordProperty("allocations", _ends.back());
    RecordProperty("tried", static_cast<int>((chosen.size() + step - 1) / step));
}

} // namespace test
