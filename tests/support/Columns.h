#ifndef SQLWRAPPER_TESTS_SUPPORT_COLUMNS_H
#define SQLWRAPPER_TESTS_SUPPORT_COLUMNS_H

#include "SqlField.h"

namespace test {

// Column declarations that many tests share, each closed by the ending field.

extern const sql::Field product_columns[];  // id (integer key), name (text), price (float)
extern const sql::Field all_type_columns[]; // id (integer key), name, price, sold (bool), at (time)
extern const sql::Field text_key_columns[]; // code (text key), name (text)
extern const sql::Field key_last_columns[]; // name (text), price (float), id (integer key)
extern const sql::Field without_key_columns[]; // name (text), price (float)
extern const sql::Field no_columns[];          // the ending field alone

} // namespace test

#endif
