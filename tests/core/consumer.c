/* An application in C99, built against the installed header and library.
   With VRIXDB_ONLY it calls libvrixdb alone, so a link with --as-needed
   records only libvrixdb, which must then find libvrixhdd by itself. */
#include <vrixdb.h>

#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/msg.h>

static int g_lines;

static void count_line(const char *line, void *user) {
    if (strcmp(line, "vrix db : already started") == 0 && user == &g_lines) ++g_lines;
}

int main(void) {
    struct tm tm;
    NotifyMessage m;
    char version[32];
    int app, ok;

    memset(&tm, 0, sizeof tm);
    sec_to_tm(&tm, 0);
    if (tm.tm_year != 70 || tm.tm_mday != 1) return 1;
    if (g_iCommit[2] != 10 || g_iCommit[9] != 2) return 2;
    if (sizeof(EventRecord) != 140 || sizeof(VrixAudioBlock) != 200) return 3;
#ifndef VRIXDB_ONLY
    {
        ResultTable t = NULL;
        SqlHandle db = NULL;
        if (sql_open(":memory:", &db) != 0) return 4;
        if (sql_submit(db, "select 42", "%d", &t) != 1 || *(int *)t[0] != 42) return 5;
        db_free_sqlite(t, 1);
        sql_close(db);
    }
#endif

    app = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    ok = vrix_db_init(app);
    msgctl(app, IPC_RMID, NULL);
    if (ok != 1 || g_iDbSubmitThreadStopAck != 1) return 6;
    memset(&m, 0, sizeof m);
    /* The library loaded is the one of the header built against. */
    snprintf(version, sizeof version, "%d.%d.%d", VRIX_VERSION_MAJOR, VRIX_VERSION_MINOR,
             VRIX_VERSION_PATCH);
    if (strcmp(version, vrix_db_version()) != 0) return 7;
    if (vrix_db_set_sync_interval(500) != VRIX_DEFAULT_SYNC_INTERVAL_MS ||
        vrix_db_set_sync_interval(VRIX_DEFAULT_SYNC_INTERVAL_MS) != 500)
        return 8;
    /* The library's lines reach a sink the application installs. */
    vrix_db_set_log(count_line, &g_lines);
    if (vrix_db_init(app) != 1 || g_lines != 1) return 9;
    vrix_db_set_log(NULL, NULL);
    printf("consumer ok %s\n", version);
    return 0;
}
