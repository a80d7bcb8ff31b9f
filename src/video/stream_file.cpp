#include "stream_file.h"

#include "core/messages.h"
#include "store/records.h"
#include "store/schema.h"

#include <sys/stat.h>
#include <unistd.h>

namespace vrix {

FILE *open_stream_for_writing(const char *path) {
    FILE *fp = std::fopen(path, "rb+");
    if (!fp) fp = std::fopen(path, "wb+");
    if (fp) std::setvbuf(fp, nullptr, _IONBF, 0);
    return fp;
}

long long stream_size(FILE *fp) {
    if (fseeko(fp, 0, SEEK_END) != 0) return -1;
    return ftello(fp);
}

long long file_size(FILE *fp) {
    struct stat st {};
    return fstat(fileno(fp), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

bool cut_stream(FILE *fp, long long offset) {
    std::fflush(fp);
    const bool cut = ftruncate(fileno(fp), offset) == 0;
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

namespace {

// Reads the `n` bytes at `offset`; false (end-of-file state cleared) when
// fewer arrive.
bool read_at(FILE *fp, long long offset, unsigned char *out, size_t n) {
    if (fseeko(fp, offset, SEEK_SET) == 0 && std::fread(out, 1, n, fp) == n) return true;
    std::clearerr(fp);
    return false;
}

} // namespace

AtRow audio_record_at(FILE *fp, long long offset, long long size, int sec) {
    if (offset < 0) return AtRow::Disagrees;
    unsigned char head[12];
    if (size - offset < static_cast<long long>(sizeof head)) return AtRow::NotYet;
    if (!read_at(fp, offset, head, sizeof head)) return AtRow::Disagrees;
    int32_t s;
    uint32_t w;
    if (!parse_audio_record(head, s, w) || s != sec || s == 0) return AtRow::Disagrees;
    return size - offset < VRIX_AUDIO_RECORD_SIZE ? AtRow::NotYet : AtRow::Agrees;
}

AtRow key_frame_at(FILE *fp, long long offset, long long size, int sec, long long max_len) {
    constexpr size_t kHead = VRIX_FRAME_HEADER_SIZE + VRIX_FRAME_KEY_BYTE + 1;
    if (offset < 0) return AtRow::Disagrees;
    unsigned char head[kHead];
    if (size - offset < static_cast<long long>(kHead)) return AtRow::NotYet;
    if (!read_at(fp, offset, head, kHead)) return AtRow::Disagrees;
    FrameInfo f{};
    parse_frame(head, kHead, f);
    if (f.len <= VRIX_FRAME_KEY_BYTE || f.len > max_len || !f.key || f.sec != sec || f.sec == 0)
        return AtRow::Disagrees;
    const long long end = offset + VRIX_FRAME_HEADER_SIZE + static_cast<long long>(f.len);
    return end <= size ? AtRow::Agrees : AtRow::NotYet;
}

} // namespace vrix
