// vrixdb: the command-line program over the library's public interface.
#include "vrixdb.h"

#include <sys/ipc.h>
#include <sys/msg.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

namespace {

int usage() {
    std::puts("usage: vrixdb demo [--root DIR]");
    return 2;
}

int demo(const std::string &root) {
    std::printf("vrixdb demo : root %s\n", root.c_str());
    const int app = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    if (app < 0) {
        std::puts("vrixdb demo : cannot make the application queue");
        return 1;
    }
    const int ok = vrix_db_init(app);
    std::printf("start-up            : %s\n", ok ? "ready" : "FAILED");
    std::printf("submit thread       : %s\n",
                g_iDbSubmitThreadStop && g_iDbSubmitThreadStopAck ? "parked" : "running");
    std::printf("queues 1220/1/2     : %d %d %d\n", g_iSubmitMq, g_iRmMq, g_iRmAckMq);
    std::printf("commit thresholds   :");
    for (int v : g_iCommit)
        std::printf(" %d", v);
    std::puts("");
    struct tm tm {};
    const int now = static_cast<int>(time(nullptr));
    sec_to_tm(&tm, now);
    std::printf("local time (library): %04d-%02d-%02d %02d:%02d:%02d\n", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    msgctl(app, IPC_RMID, nullptr);
    return ok ? 0 : 1;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2) return usage();
    std::string root = "demo-root";
    for (int i = 2; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--root") && i + 1 < argc)
            root = argv[++i];
        else
            return usage();
    }
    if (!std::strcmp(argv[1], "demo")) return demo(root);
    return usage();
}
