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
using data::Keywords::use;
using Text = ::Poco::Nullable<std::string>;
using Tuple =
    ::Poco::Tuple<::Poco::Int64, std::string, std::string, double, bool, ::Poco::Int64, Text>;

// The variables are bound for good; rows are tuples, brought into the program all at once.
class Poco : public PreparingContestant {
public:
    Poco()
    {
        data::SQLite::Connector::registerConnector();
    }
    void open(const std::string& file) override
    {
        _session.emplace(data::SQLite::Connector::KEY, file);
    }
    void close() override
    {
        for (std::optional<data::Statement>& statement : _statements)
            statement.reset();
        _tuples = std::vector<Tuple>();
        _session.reset();
    }
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
    long long count() override
    {
        statement(count_rows).execute();
        return _number;
    }
    long long load() override
    {
        select();
        return static_cast<long long>(_tuples.size());
    }
    void readByIndex(Digest& digest) override;
    void readByName(Digest& digest) override;
    void copyFrom(Contestant& source) override
    {
        Poco& from = static_cast<Poco&>(source);
        from.select();
        data::Statement statement((*_session << statements[insert_row], use(from._tuples)));
        statement.execute();
    }

protected:
    void write(Work work, const Row& row) override;
    bool find(Work work, long long key) override
    {
        _key = key;
        return statement(work).execute() == 1;
    }

private:
    void select()
    {
        _tuples.clear();
        statement(select_rows).execute();
    }
    data::Statement& statement(Work work)
    {
        if (!_statements[work])
            _statements[work].emplace(prepared(work));
        return *_statements[work];
    }
    data::Statement prepared(Work work)
    {
        data::Statement text = (*_session << statements[work]);
        if (work <= add_or_update_row)
            return text, use(_tuple);
        if (work <= test_existence)
            text, use(_key);
        if (work == look_up)
            return text, into(_tuple);
        if (work == select_rows)
            return text, into(_tuples);
        return work == remove_row ? text : (text, into(_number));
    }

    std::optional<data::Session> _session;
    std::optional<data::Statement> _statements[work_count];
    ::Poco::Int64 _key = 0;
    ::Poco::Int64 _number = 0;
    Tuple _tuple;
    std::vector<Tuple> _tuples;
};

void Poco::write(Work work, const Row& row)
{
    _tuple.set<0>(row.id);
    _tuple.set<1>(row.name);
    _tuple.set<2>(row.place);
    _tuple.set<3>(row.price);
    _tuple.set<4>(row.active);
    _tuple.set<5>(row.changed);
    _tuple.set<6>(row.note ? Text(*row.note) : Text());
    statement(work).execute();
}

void Poco::readByIndex(Digest& digest)
{
    select();
    for (const Tuple& row : _tuples) {
        const Text& note = row.get<6>();
        digest.add(row.get<0>(), row.get<1>().size(), row.get<2>()[0], row.get<3>(), row.get<4>(),
                   row.get<5>(), note.isNull() ? 0 : note.value().size() + 1);
    }
}

void Poco::readByName(Digest& digest)
{
    data::Statement statement((*_session << statements[select_rows]));
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

} // namespace

std::unique_ptr<Contestant> makePoco()
{
    return std::make_unique<Poco>();
}

} // namespace bench
