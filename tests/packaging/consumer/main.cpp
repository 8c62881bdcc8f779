// Uses a little of everything an application reaches first: the result codes, text helpers, the
// stream form and the database wrapper.
#include <cstdio>
#include <sstream>

#include "common_utilities/common_utilities.h"
#include "common_utilities/qv_sqlite.h"
#include "common_utilities/serialization_utils.h"

int main() {
    using namespace quorvel::utilities;
    std::ostringstream out;
    if (SerializationUtils::SerializeInt32(0x01020304, out) != QV_OK) return 1;
    if (SerializationUtils::ToHex(out.str()) != "01020304") return 2;
    if (ToUpper("grüße") != "GRÜSSE") return 3;
    Sqlite db;
    if (db.open(":memory:") != 0 || db.exec("CREATE TABLE t(a)") != 101) return 4;
    db.close();
    std::puts("consumer: linked and working");
    return 0;
}
