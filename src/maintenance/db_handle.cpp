#include "maintenance.h"

#include "store/schema.h"

namespace vrix {

bool Db::value(ResultTable &holder, const char *sql, int &out) const {
    int rows;
    {
        SqlLock hold(m_);
        rows = sql_submit(h_, sql, "%d", &holder);
    }
    return rows > 0 && holder_int(holder, out);
}

void Db::transaction(std::initializer_list<const char *> parts) const {
    SqlLock hold(m_);
    sql_submit(h_, sql::kReduceBegin, "");
    for (const char *p : parts)
        if (p) sql_submit(h_, p, "");
    sql_submit(h_, sql::kReduceCommit, "");
}

} // namespace vrix
