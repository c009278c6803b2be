#include "Contestant.h"

#include <Poco/Data/RecordSet.h>
#include <Poco/Data/SQLite/Connector.h>
#include <Poco/Data/SQLite/Utility.h>
#include <Poco/Data/Session.h>
#include <Poco/Nullable.h>
#include <Poco/Tuple.h>

namespace bench {

namespace {

namespace data = ::Poco::Data;
using data::Keywords::into;
using data::Keywords::now;
using data::Keywords::use;
using Text = ::Poco::Nullable<std::string>;
using Tuple =
    ::Poco::Tuple<::Poco::Int64, std::string, std::string, double, bool, ::Poco::Int64, Text>;

// Statements prepared once, with their variables bound for good; rows as tuples.
class Poco : public Contestant {
public:
    Poco()
    {
        data::SQLite::Connector::registerConnector();
    }
    void open(const std::string& file) override
    {
        _session.emplace(data::SQLite::Connector::KEY, file);
    }
    void close() override;
    sqlite3* handle() override
    {
        return data::SQLite::Utility::dbHandle(*_session);
    }
    void begin() override
    {
        _session->begin();
    }
    void commit() override
    {
        _session->commit();
    }
    void insert(const Row& row) override
    {
        write(_insert, "insert into item values (?, ?, ?, ?, ?, ?, ?)", row);
    }
    void update(const Row& row) override
    {
        write(
            _update,
            "update item set name=?2, place=?3, price=?4, active=?5, changed=?6, note=?7 where id = ?1",
            row);
    }
    void addOrUpdate(const Row& row) override
    {
        write(
            _addOrUpdate,
            "insert into item values (?1, ?2, ?3, ?4, ?5, ?6, ?7) on conflict(id) do update set name=?2, place=?3, price=?4, active=?5, changed=?6, note=?7",
            row);
    }
    void remove(long long key) override;
    bool lookup(long long key) override;
    bool exists(long long key) override;
    long long count() override;
    long long load() override;
    void readByIndex(Digest& digest) override;
    void readByName(Digest& digest) override;
    void copyFrom(Contestant& source) override;

private:
    using Cached = std::optional<data::Statement>;

    void write(Cached& statement, const char* sql, const Row& row);

    std::optional<data::Session> _session;
    Cached _insert;
    Cached _update;
    Cached _addOrUpdate;
    Cached _remove;
    Cached _lookup;
    Cached _exists;
    Cached _count;
    Cached _select;
    // The bound variables.
    ::Poco::Int64 _key = 0;
    ::Poco::Int64 _number = 0;
    Tuple _row;
    std::vector<Tuple> _rows;
};

void addTo(Digest& digest, const Tuple& row)
{
    const Text& note = row.get<6>();
    digest.add(row.get<0>(), row.get<1>().size(), row.get<2>()[0], row.get<3>(), row.get<4>(),
               row.get<5>(), note.isNull() ? 0 : note.value().size() + 1);
}

void Poco::close()
{
    for (Cached* const statement :
         {&_insert, &_update, &_addOrUpdate, &_remove, &_lookup, &_exists, &_count, &_select})
        statement->reset();
    _rows = std::vector<Tuple>();
    _session.reset();
}

void Poco::write(Cached& statement, const char* sql, const Row& row)
{
    _row.set<0>(row.id);
    _row.set<1>(row.name);
    _row.set<2>(row.place);
    _row.set<3>(row.price);
    _row.set<4>(row.active);
    _row.set<5>(row.changed);
    _row.set<6>(row.note ? Text(*row.note) : Text());
    if (!statement)
        statement.emplace((*_session << sql, use(_row)));
    statement->execute();
}

void Poco::remove(long long key)
{
    _key = key;
    if (!_remove)
        _remove.emplace((*_session << "delete from item where id = ?", use(_key)));
    _remove->execute();
}

bool Poco::lookup(long long key)
{
    _key = key;
    if (!_lookup)
        _lookup.emplace((*_session << "select * from item where id = ?", use(_key), into(_row)));
    return _lookup->execute() == 1;
}

bool Poco::exists(long long key)
{
    _key = key;
    if (!_exists)
        _exists.emplace((*_session << "select 1 from item where id = ?", use(_key), into(_number)));
    return _exists->execute() == 1;
}

long long Poco::count()
{
    if (!_count)
        _count.emplace((*_session << "select count(*) from item", into(_number)));
    _count->execute();
    return _number;
}

long long Poco::load()
{
    _rows.clear();
    if (!_select)
        _select.emplace((*_session << "select * from item", into(_rows)));
    _select->execute();
    return static_cast<long long>(_rows.size());
}

void Poco::readByIndex(Digest& digest)
{
    load();
    for (const Tuple& row : _rows)
        addTo(digest, row);
}

void Poco::readByName(Digest& digest)
{
    data::Statement statement((*_session << "select * from item"));
    statement.execute();
    data::RecordSet rows(statement);
    for (bool more = rows.moveFirst(); more; more = rows.moveNext()) {
        const std::string name = rows["name"].convert<std::string>();
        const std::string place = rows["place"].convert<std::string>();
        digest.add(rows["id"].convert<::Poco::Int64>(), name.size(), place[0],
                   rows["price"].convert<double>(), rows["active"].convert<bool>(),
                   rows["changed"].convert<::Poco::Int64>(),
                   rows.isNull("note") ? 0 : rows["note"].convert<std::string>().size() + 1);
    }
}

void Poco::copyFrom(Contestant& source)
{
    Poco& from = static_cast<Poco&>(source);
    from.load();
    data::Statement statement(
        (*_session << "insert into item values (?, ?, ?, ?, ?, ?, ?)", use(from._rows)));
    statement.execute();
}

} // namespace

std::unique_ptr<Contestant> makePoco()
{
    return std::make_unique<Poco>();
}

} // namespace bench
