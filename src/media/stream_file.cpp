#include "stream_file.h"

#include "core/file_io.h"
#include "core/messages.h"
#include "store/log.h"
#include "store/records.h"
#include "store/schema.h"

namespace vrix {

FILE *open_stream_for_writing(const char *path) {
    FILE *fp = io::open_file(path, "rb+");
    if (!fp) fp = io::open_file(path, "wb+");
    if (fp) std::setvbuf(fp, nullptr, _IONBF, 0);
    return fp;
}

long long stream_size(FILE *fp) {
    if (fseeko(fp, 0, SEEK_END) != 0) return -1;
    return ftello(fp);
}

long long file_size(FILE *fp) {
    return io::file_size(fp);
}

bool cut_stream(FILE *fp, long long offset) {
    const long long size = io::file_size(fp);
    if (size != offset && !io::truncate_file(fp, offset)) {
        std::clearerr(fp);
        if (size >= 0) fseeko(fp, size, SEEK_SET);
        return false;
    }
    return fseeko(fp, offset, SEEK_SET) == 0;
}

Written write_records(FILE *fp, const void *data, size_t len) {
    // The writers always write at the end of what they keep.  (ftello cannot
    // tell: the C library does not count what a stream of ours wrote.)
    const long long at = file_size(fp);
    const size_t w = len ? std::fwrite(data, 1, len, fp) : 0;
    if (w == len) return {true, at, w};
    // Half a record would be read as damage, and the next write would land
    // behind it: the file goes back to where this write began.
    std::clearerr(fp);
    cut_stream(fp, at);
    std::clearerr(fp);
    return {false, at, w};
}

void report_disk_error(const char *who, int ch, const char *what) {
    log_line("%s : ch%d %s\n", who, ch, what);
    send_message(g_iVrixDbSendMq, g_IdeErrMsg);
}

void report_short_write(const char *who, int ch, size_t written, size_t wanted) {
    log_line("%s : ch%d fwrite iRet = %d , Size = %d\n", who, ch, static_cast<int>(written),
             static_cast<int>(wanted));
    send_message(g_iVrixDbSendMq, g_IdeErrMsg);
}

} // namespace vrix
