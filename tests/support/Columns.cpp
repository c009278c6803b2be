#include "Columns.h"

namespace test {

using sql::Field;

const Field product_columns[] = {
    Field("id", sql::type_int, sql::flag_primary_key),
    Field("name", sql::type_text, sql::flag_none),
    Field("price", sql::type_float, sql::flag_none),
    Field(),
};

const Field all_type_columns[] = {
    Field("id", sql::type_int, sql::flag_primary_key),
    Field("name", sql::type_text, sql::flag_none),
    Field("price", sql::type_float, sql::flag_none),
    Field("sold", sql::type_bool, sql::flag_none),
    Field("at", sql::type_time, sql::flag_none),
    Field(),
};

const Field text_key_columns[] = {
    Field("code", sql::type_text, sql::flag_primary_key),
    Field("name", sql::type_text, sql::flag_none),
    Field(),
};

const Field key_last_columns[] = {
    Field("name", sql::type_text, sql::flag_none),
    Field("price", sql::type_float, sql::flag_none),
    Field("id", sql::type_int, sql::flag_primary_key),
    Field(),
};

const Field without_key_columns[] = {
    Field("name", sql::type_text, sql::flag_none),
    Field("price", sql::type_float, sql::flag_none),
    Field(),
};

const Field no_columns[] = {
    Field(),
};

} // namespace test
