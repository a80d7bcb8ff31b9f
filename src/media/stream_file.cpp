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
    const bool cut = io::truncate_file(fp, offset);
    return fseeko(fp, offset, SEEK_SET) == 0 && cut;
}

size_t write_bytes(FILE *fp, const void *data, size_t len) {
    return len ? std::fwrite(data, 1, len, fp) : 0;
}

void report_short_write(int ch, size_t written, size_t wanted) {
    log_line("rec : ch%d fwrite iRet = %d , Size = %d\n", ch, static_cast<int>(written),
             static_cast<int>(wanted));
    send_message(g_iVrixDbSendMq, g_IdeErrMsg);
}

} // namespace vrix
