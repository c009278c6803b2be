#include "Contestant.h"

#include <soci/soci.h>
#include <soci/sqlite3/soci-sqlite3.h>

namespace bench {

namespace {

// The variables that statements take from and bring into are bound for good.
class Soci : public ReadingContestant {
public:
    void open(const std::string& file) override
    {
        _session.open(soci::sqlite3, "db=" + file + " timeout=1");
    }
    void close() override
    {
        for (std::unique_ptr<soci::statement>& statement : _statements)
            statement.reset();
        _rows = std::vector<Row>();
        _session.close();
    }
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
    long long count() override
    {
        statement(count_rows).execute(true);
        return _number;
    }
    void readByName(Digest& digest) override;

protected:
    void write(Work work, const Row& row) override;
    bool find(Work work, long long key) override
    {
        _key = key;
        return statement(work).execute(true);
    }
    void select() override
    {
        statement(select_rows).execute();
    }
    bool next(Row& row) override
    {
        if (!_statements[select_rows]->fetch())
            return false;
        row = _bound;
        row.active = _active != 0;
        if (_noteIndicator == soci::i_ok)
            row.note = _note;
        else
            row.note.reset();
        return true;
    }

private:
    soci::statement& statement(Work work)
    {
        if (_statements[work] == nullptr)
            _statements[work] = std::make_unique<soci::statement>(prepared(work));
        return *_statements[work];
    }
    soci::details::prepare_temp_type prepared(Work work);

    soci::session _session;
    std::unique_ptr<soci::statement> _statements[work_count];
    long long _key = 0;
    long long _number = 0;
    Row _bound;
    int _active = 0;
    std::string _note;
    soci::indicator _noteIndicator = soci::i_null;
};

soci::details::prepare_temp_type Soci::prepared(Work work)
{
    using soci::into;
    using soci::use;
    soci::details::prepare_temp_type text = _session.prepare << statements[work];
    if (work <= add_or_update_row)
        return text, use(_bound.id), use(_bound.name), use(_bound.place), use(_bound.price),
               use(_active), use(_bound.changed), use(_note, _noteIndicator);
    if (work <= test_existence)
        text = (text, use(_key));
    if (work == test_existence || work == count_rows)
        return text, into(_number);
    if (work == look_up || work == select_rows)
        return text, into(_bound.id), into(_bound.name), into(_bound.place), into(_bound.price),
               into(_active), into(_bound.changed), into(_note, _noteIndicator);
    return text;
}

void Soci::write(Work work, const Row& row)
{
    soci::statement& written = statement(work);
    _bound = row;
    _active = row.active ? 1 : 0;
    _noteIndicator = row.note ? soci::i_ok : soci::i_null;
    if (row.note)
        _note = *row.note;
    written.execute(true);
}

void Soci::readByName(Digest& digest)
{
    const soci::rowset<soci::row> rows = (_session.prepare << statements[select_rows]);
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

} // namespace

std::unique_ptr<Contestant> makeSoci()
{
    return std::make_unique<Soci>();
}

} // namespace bench
