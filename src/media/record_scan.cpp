#include "record_scan.h"

#include "core/calendar.h"
#include "store/format.h"
#include "store/records.h"
#include "store/schema.h"

#include <algorithm>

namespace vrix {

namespace {

constexpr size_t kVideoHead = VRIX_FRAME_HEADER_SIZE + VRIX_FRAME_CHANNEL_BYTE + 1;

bool read_at(FILE *fp, long long offset, unsigned char *out, size_t n) {
    if (fseeko(fp, offset, SEEK_SET) == 0 && std::fread(out, 1, n, fp) == n) return true;
    std::clearerr(fp);
    return false;
}

} // namespace

bool RecordScan::in_hour(int sec) {
    if (sec <= 0) return false;
    if (sec == last_sec_) return true;
    const std::tm tm = fields_of(sec);
    if (tm.tm_hour != hour_) return false;
    if (day_ < 0) {
        day_ = tm.tm_yday;
        year_ = tm.tm_year;
    }
    return tm.tm_yday == day_ && tm.tm_year == year_;
}

bool RecordScan::zeros_to_end() const {
    unsigned char block[4096];
    for (long long at = at_; at < size_;) {
        const size_t n = static_cast<size_t>(std::min<long long>(size_ - at, sizeof block));
        if (!read_at(fp_, at, block, n)) return false; // could not check: kept
        for (size_t i = 0; i < n; ++i)
            if (block[i]) return false;
        at += static_cast<long long>(n);
    }
    return true;
}

bool RecordScan::next(ScannedRecord &r) {
    unsigned char head[kVideoHead];
    const size_t want = video_ ? kVideoHead : 12;
    torn_ = true;
    if (size_ - at_ < static_cast<long long>(want)) return false;
    torn_ = false;
    if (!read_at(fp_, at_, head, want)) return false;
    long long len;
    int sec;
    bool key = false;
    bool valid;
    if (video_) {
        FrameInfo f{};
        parse_frame(head, want, f);
        valid = f.len >= VRIX_FRAME_CHANNEL_BYTE + 1 && f.len <= VRIX_MAX_FRAME_PAYLOAD &&
                frame_scale(f) <= VRIX_MAX_SCALE && (channel_ < 0 || f.channel == channel_);
        len = VRIX_FRAME_HEADER_SIZE + static_cast<long long>(f.len);
        sec = f.sec;
        key = f.key;
        if (valid && channel_ < 0) channel_ = f.channel;
    } else {
        int32_t s;
        uint32_t w;
        valid = parse_audio_record(head, s, w);
        len = VRIX_AUDIO_RECORD_SIZE;
        sec = s;
    }
    valid = valid && in_hour(sec);
    if (!valid || size_ - at_ < len) {
        // A record valid but for its end is a write cut short.
        torn_ = valid || zeros_to_end();
        return false;
    }
    r = ScannedRecord{at_, sec, key};
    last_sec_ = sec;
    at_ += len;
    return true;
}

ScanEnd scan_end(FILE *fp, long long from, long long size, int hour, bool video) {
    RecordScan scan(fp, from, size, hour, video);
    for (ScannedRecord r; scan.next(r);) {
    }
    return {scan.end(), scan.last_sec(), scan.torn()};
}

ScanEnd index_from(FILE *fp, long long from, long long size, int hour, bool video,
                   pthread_mutex_t *m, SqlHandle db) {
    RecordScan scan(fp, from, size, hour, video);
    SqlLock hold(m);
    Sql q;
    submit_busy(db, sql::kBegin);
    sql_submit(db, sql::kCreateHourH, "");
    // From 0 every row is made again from the file: the table gets the index
    // on its times.
    create_hour_table(db, hour, from == 0);
    format_into(q.text, sizeof q.text, sql::kInsertHourOnce, hour, hour);
    sql_submit(db, q.text, "");
    format_into(q.text, sizeof q.text, sql::kDeleteAfter, hour, from);
    sql_submit(db, q.text, "");
    // A row at `from` that already names its record stays as it is, so an
    // hour that agrees with its file is not written at all.
    int kept_sec = 0, second = 0;
    ScannedRecord r;
    const bool first = scan.next(r);
    const bool first_indexed = first && (video ? r.key : true);
    if (first_indexed) kept_sec = r.sec;
    format_into(q.text, sizeof q.text, sql::kDeleteAtOtherSec, hour, from, kept_sec);
    sql_submit(db, q.text, "");
    if (first_indexed) {
        format_into(q.text, sizeof q.text, sql::kInsertIndexOnce, hour, r.sec, from, hour, from);
        sql_submit(db, q.text, "");
    }
    second = first ? r.sec : 0;
    while (first && scan.next(r)) {
        if (video ? !r.key : r.sec == second) continue;
        second = r.sec;
        format_into(q.text, sizeof q.text, sql::kInsertIndex, hour, r.sec, r.offset);
        sql_submit(db, q.text, "");
    }
    submit_busy(db, sql::kCommit);
    return {scan.end(), scan.last_sec(), scan.torn()};
}

} // namespace vrix
