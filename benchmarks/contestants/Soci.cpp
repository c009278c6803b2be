#include "Contestant.h"

#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

namespace bench {

namespace {

// Statements prepared once, with the variables that they take from and bring into bound for good.
class Soci : public Contestant {
public:
    void open(const std::string& file) override
    {
        _session.open(soci::sqlite3, "db=" + file + " timeout=1");
    }
    void close() override;
    // The backend has SQLite's declarations in a namespace of its own.
    ::sqlite3* handle() override
    {
        auto* const backend = static_cast<soci::sqlite3_session_backend*>(_session.get_backend());
        return reinterpret_cast<::sqlite3*>(backend->conn_);
    }
    void begin() override
    {
        _session.begin();
    }
    void commit() override
    {
        _session.commit();
    }
    void insert(const Row& row) override
    {
        write(_insert,
              "insert into item values (:id, :name, :place, :price, :active, :changed, :note)",
              row);
    }
    void update(const Row& row) override
    {
        write(
            _update,
            "update item set name=:name, place=:place, price=:price, active=:active, changed=:changed, note=:note where id = :id",
            row);
    }
    void addOrUpdate(const Row& row) override
    {
        write(
            _addOrUpdate,
            "insert into item values (:id, :name, :place, :price, :active, :changed, :note) on conflict(id) do update set name=excluded.name, place=excluded.place, price=excluded.price, active=excluded.active, changed=excluded.changed, note=excluded.note",
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
    using Cached = std::unique_ptr<soci::statement>;

    void write(Cached& statement, const char* sql, const Row& row);
    soci::statement& select();
    void takeRow(Row& row);

    soci::session _session;
    Cached _insert;
    Cached _update;
    Cached _addOrUpdate;
    Cached _remove;
    Cached _lookup;
    Cached _exists;
    Cached _count;
    Cached _select;
    // The bound variables.
    long long _key = 0;
    long long _number = 0;
    Row _row;
    int _active = 0;
    std::string _note;
    soci::indicator _noteIndicator = soci::i_null;
    std::vector<Row> _rows;
};

void Soci::close()
{
    for (Cached* const statement :
         {&_insert, &_update, &_addOrUpdate, &_remove, &_lookup, &_exists, &_count, &_select})
        statement->reset();
    _rows = std::vector<Row>();
    _session.close();
}

void Soci::write(Cached& statement, const char* sql, const Row& row)
{
    if (statement == nullptr)
        statement = std::make_unique<soci::statement>(
            (_session.prepare << sql, soci::use(_row.id, "id"), soci::use(_row.name, "name"),
             soci::use(_row.place, "place"), soci::use(_row.price, "price"),
             soci::use(_active, "active"), soci::use(_row.changed, "changed"),
             soci::use(_note, _noteIndicator, "note")));
    _row.id = row.id;
    _row.name = row.name;
    _row.place = row.place;
    _row.price = row.price;
    _active = row.active ? 1 : 0;
    _row.changed = row.changed;
    _noteIndicator = row.note ? soci::i_ok : soci::i_null;
    if (row.note)
        _note = *row.note;
    statement->execute(true);
}

void Soci::remove(long long key)
{
    if (_remove == nullptr)
        _remove = std::make_unique<soci::statement>(
            (_session.prepare << "delete from item where id = :key", soci::use(_key, "key")));
    _key = key;
    _remove->execute(true);
}

bool Soci::lookup(long long key)
{
    if (_lookup == nullptr)
        _lookup = std::make_unique<soci::statement>(
            (_session.prepare << "select * from item where id = :key", soci::use(_key, "key"),
             soci::into(_row.id), soci::into(_row.name), soci::into(_row.place),
             soci::into(_row.price), soci::into(_active), soci::into(_row.changed),
             soci::into(_note, _noteIndicator)));
    _key = key;
    return _lookup->execute(true);
}

bool Soci::exists(long long key)
{
    if (_exists == nullptr)
        _exists = std::make_unique<soci::statement>(
            (_session.prepare << "select 1 from item where id = :key", soci::use(_key, "key"),
             soci::into(_number)));
    _key = key;
    return _exists->execute(true);
}

long long Soci::count()
{
    if (_count == nullptr)
        _count = std::make_unique<soci::statement>(
            (_session.prepare << "select count(*) from item", soci::into(_number)));
    _count->execute(true);
    return _number;
}

soci::statement& Soci::select()
{
    if (_select == nullptr)
        _select = std::make_unique<soci::statement>(
            (_session.prepare << "select * from item", soci::into(_row.id), soci::into(_row.name),
             soci::into(_row.place), soci::into(_row.price), soci::into(_active),
             soci::into(_row.changed), soci::into(_note, _noteIndicator)));
    _select->execute();
    return *_select;
}

void Soci::takeRow(Row& row)
{
    if (&row != &_row)
        row = _row;
    row.active = _active != 0;
    if (_noteIndicator == soci::i_ok)
        row.note = _note;
    else
        row.note.reset();
}

long long Soci::load()
{
    _rows.clear();
    soci::statement& statement = select();
    while (statement.fetch())
        takeRow(_rows.emplace_back());
    return static_cast<long long>(_rows.size());
}

void Soci::readByIndex(Digest& digest)
{
    soci::statement& statement = select();
    while (statement.fetch()) {
        takeRow(_row);
        digest.add(_row);
    }
}

void Soci::readByName(Digest& digest)
{
    const soci::rowset<soci::row> rows = (_session.prepare << "select * from item");
    for (const soci::row& cells : rows) {
        _row.id = cells.get<int>("id");
        _row.name = cells.get<std::string>("name");
        _row.place = cells.get<std::string>("place");
        _row.price = cells.get<double>("price");
        _row.active = cells.get<int>("active") != 0;
        _row.changed = cells.get<int>("changed");
        if (cells.get_indicator("note") == soci::i_null)
            _row.note.reset();
        else
            _row.note = cells.get<std::string>("note");
        digest.add(_row);
    }
}

void Soci::copyFrom(Contestant& source)
{
    Soci& from = static_cast<Soci&>(source);
    soci::statement& statement = from.select();
    while (statement.fetch()) {
        from.takeRow(from._row);
        insert(from._row);
    }
}

} // namespace

std::unique_ptr<Contestant> makeSoci()
{
    return std::make_unique<Soci>();
}

} // namespace bench
