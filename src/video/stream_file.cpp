#include "stream_file.h"

#include "core/file_io.h"
#include "core/messages.h"
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
    std::printf("rec : ch%d fwrite iRet = %d , Size = %d\n", ch, static_cast<int>(written),
                static_cast<int>(wanted));
    send_message(g_iVrixDbSendMq, g_IdeErrMsg);
}

bool append_index_row(char *batch, int size, int &len, int hour, int sec, long long offset) {
    const int room = size - len;
    const int n =
        std::snprintf(batch + len, static_cast<size_t>(room), sql::kInsertIndex, hour, sec, offset);
    if (n < 0 || n >= room) {
        batch[len] = '\0';
        return false;
    }
    len += n;
    return true;
}

bool audio_record_agrees(FILE *fp, long long offset, long long size, int sec) {
    if (offset < 0 || size - offset < VRIX_AUDIO_RECORD_SIZE) return false;
    unsigned char head[12];
    if (fseeko(fp, offset, SEEK_SET) != 0 || std::fread(head, 1, sizeof head, fp) != sizeof head) {
        std::clearerr(fp);
        return false;
    }
    int32_t s;
    uint32_t w;
    return parse_audio_record(head, s, w) && s == sec && s != 0;
}

bool key_frame_agrees(FILE *fp, long long offset, long long size, int sec) {
    constexpr size_t kHead = VRIX_FRAME_HEADER_SIZE + VRIX_FRAME_KEY_BYTE + 1;
    if (offset < 0 || size - offset < static_cast<long long>(kHead)) return false;
    unsigned char head[kHead];
    if (fseeko(fp, offset, SEEK_SET) != 0 || std::fread(head, 1, kHead, fp) != kHead) {
        std::clearerr(fp);
        return false;
    }
    FrameInfo f{};
    parse_frame(head, kHead, f);
    const long long end = offset + VRIX_FRAME_HEADER_SIZE + static_cast<long long>(f.len);
    return f.len > VRIX_FRAME_KEY_BYTE && end <= size && f.key && f.sec == sec && f.sec != 0;
}

} // namespace vrix
