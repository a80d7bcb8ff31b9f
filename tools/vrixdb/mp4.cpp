#include "mp4.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/mem.h>
}

#include <cstring>
#include <vector>

namespace vrixtool {

namespace {

constexpr int kIoBuffer = 64 << 10;

// The SPS and PPS NAL units of an access unit, each behind a 4-byte start
// code: the decoder configuration libavformat turns into the track's avcC.
std::vector<uint8_t> parameter_sets(const uint8_t *au, size_t size) {
    std::vector<uint8_t> out;
    size_t i = 0;
    auto next_start = [&](size_t from) {
        for (size_t k = from; k + 3 <= size; ++k)
            if (au[k] == 0 && au[k + 1] == 0 && au[k + 2] == 1) return k;
        return size;
    };
    i = next_start(0);
    while (i < size) {
        const size_t begin = i + 3;
        size_t end = next_start(begin);
        const size_t following = end;
        while (end > begin && au[end - 1] == 0) // trailing zeros and a 4-byte code's first
            --end;
        if (begin < end) {
            const int type = au[begin] & 0x1f;
            if (type == 7 || type == 8) {
                static constexpr uint8_t kCode[4] = {0, 0, 0, 1};
                out.insert(out.end(), kCode, kCode + 4);
                out.insert(out.end(), au + begin, au + end);
            }
        }
        i = following;
    }
    return out;
}

std::string av_message(const char *what, int rc) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(rc, text, sizeof text);
    return std::string(what) + ": " + text;
}

} // namespace

struct Mp4Muxer::Impl {
    Sink sink;
    Seek seek;
    int64_t position = 0;
    bool refused = false;
    AVFormatContext *fmt = nullptr;
    AVIOContext *io = nullptr;
    AVPacket *packet = nullptr;
    bool headerWritten = false;
    std::vector<uint8_t> pending; // the unit written once the next one gives its duration
    bool pendingIdr = false;

#if LIBAVFORMAT_VERSION_MAJOR >= 61
    static int write(void *opaque, const uint8_t *buf, int size){
#else
    static int write(void *opaque, uint8_t *buf, int size) {
#endif
        auto *self = static_cast<Impl *>(opaque);
    if (self->refused || !self->sink(buf, static_cast<size_t>(size))) {
        self->refused = true;
        return AVERROR(EIO);
    }
    self->position += size;
    return size;
} static int64_t reposition(void *opaque, int64_t offset, int whence) {
    auto *self = static_cast<Impl *>(opaque);
    whence &= ~AVSEEK_FORCE;
    if (whence == AVSEEK_SIZE) return -1;
    const int64_t target = whence == SEEK_CUR ? self->position + offset : offset;
    if (whence != SEEK_SET && whence != SEEK_CUR) return -1;
    if (!self->seek || !self->seek(target)) return -1;
    self->position = target;
    return target;
}

~Impl() {
    av_packet_free(&packet);
    if (fmt) avformat_free_context(fmt);
    if (io) {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
}
}; // namespace vrixtool

Mp4Muxer::Mp4Muxer(Sink sink, Seek seek) : impl_(std::make_unique<Impl>()) {
    impl_->sink = std::move(sink);
    impl_->seek = std::move(seek);
}

Mp4Muxer::~Mp4Muxer() = default;

bool Mp4Muxer::start(const uint8_t *au, size_t size) {
    Impl &m = *impl_;
    const std::vector<uint8_t> config = parameter_sets(au, size);
    if (config.empty()) {
        error_ = "the first key frame carries no SPS/PPS";
        return false;
    }
    int rc = avformat_alloc_output_context2(&m.fmt, nullptr, "mp4", nullptr);
    if (rc < 0 || !m.fmt) {
        error_ = av_message("no MP4 muxer", rc);
        return false;
    }
    auto *buffer = static_cast<uint8_t *>(av_malloc(kIoBuffer));
    m.io = buffer ? avio_alloc_context(buffer, kIoBuffer, 1, &m, nullptr, &Impl::write,
                                       m.seek ? &Impl::reposition : nullptr)
                  : nullptr;
    m.packet = av_packet_alloc();
    AVStream *st = avformat_new_stream(m.fmt, nullptr);
    if (!m.io || !m.packet || !st) {
        if (!m.io) av_free(buffer);
        error_ = "out of memory";
        return false;
    }
    m.io->seekable = m.seek ? AVIO_SEEKABLE_NORMAL : 0;
    m.fmt->pb = m.io;
    m.fmt->flags |= AVFMT_FLAG_CUSTOM_IO;
    st->time_base = AVRational{1, 1000};
    AVCodecParameters *par = st->codecpar;
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = AV_CODEC_ID_H264;
    par->extradata =
        static_cast<uint8_t *>(av_mallocz(config.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (!par->extradata) {
        error_ = "out of memory";
        return false;
    }
    std::memcpy(par->extradata, config.data(), config.size());
    par->extradata_size = static_cast<int>(config.size());
    // The picture size, from the SPS as libavcodec's parser reads it.
    if (AVCodecParserContext *parser = av_parser_init(AV_CODEC_ID_H264)) {
        if (AVCodecContext *cc = avcodec_alloc_context3(nullptr)) {
            parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
            uint8_t *outData = nullptr;
            int outSize = 0;
            std::vector<uint8_t> padded(au, au + size);
            padded.resize(size + AV_INPUT_BUFFER_PADDING_SIZE);
            av_parser_parse2(parser, cc, &outData, &outSize, padded.data(), static_cast<int>(size),
                             AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
            par->width = parser->width > 0 ? parser->width : cc->width;
            par->height = parser->height > 0 ? parser->height : cc->height;
            avcodec_free_context(&cc);
        }
        av_parser_close(parser);
    }
    AVDictionary *opts = nullptr;
    if (!m.seek) av_dict_set(&opts, "movflags", "frag_keyframe+empty_moov+default_base_moof", 0);
    rc = avformat_write_header(m.fmt, &opts);
    av_dict_free(&opts);
    if (rc < 0) {
        error_ = m.refused ? "the reader left" : av_message("MP4 header", rc);
        return false;
    }
    m.headerWritten = true;
    return true;
}

bool Mp4Muxer::write_pending(int64_t duration) {
    Impl &m = *impl_;
    av_packet_unref(m.packet);
    if (av_new_packet(m.packet, static_cast<int>(m.pending.size())) < 0) {
        error_ = "out of memory";
        return false;
    }
    std::memcpy(m.packet->data, m.pending.data(), m.pending.size());
    // The muxer may pick its own time base when it writes the header.
    const AVRational ms{1, 1000};
    const AVRational tb = m.fmt->streams[0]->time_base;
    m.packet->pts = m.packet->dts = av_rescale_q(lastMs_, ms, tb);
    m.packet->duration = av_rescale_q(duration, ms, tb);
    m.packet->stream_index = 0;
    if (m.pendingIdr) m.packet->flags |= AV_PKT_FLAG_KEY;
    const int rc = av_write_frame(m.fmt, m.packet);
    if (rc < 0) {
        error_ = m.refused ? "the reader left" : av_message("muxing", rc);
        return false;
    }
    // A fragment goes out whole as soon as it is complete.
    avio_flush(m.io);
    if (m.refused) {
        error_ = "the reader left";
        return false;
    }
    lastDuration_ = duration;
    return true;
}

bool Mp4Muxer::add(const uint8_t *au, size_t size, bool idr, int64_t ms) {
    Impl &m = *impl_;
    if (!error_.empty()) return false;
    if (!m.headerWritten) {
        if (!idr) return true; // nothing before the first key frame
        if (!start(au, size)) return false;
    } else {
        if (ms <= lastMs_) ms = lastMs_ + 1;
        if (!write_pending(ms - lastMs_)) return false;
    }
    m.pending.assign(au, au + size);
    m.pendingIdr = idr;
    lastMs_ = ms;
    ++units_;
    return true;
}

bool Mp4Muxer::finish() {
    Impl &m = *impl_;
    if (!error_.empty()) return false;
    if (!m.headerWritten) {
        error_ = "no key frame to start from";
        return false;
    }
    if (!write_pending(lastDuration_)) return false;
    const int rc = av_write_trailer(m.fmt);
    avio_flush(m.io);
    if (rc < 0 || m.refused) {
        error_ = m.refused ? "the reader left" : av_message("MP4 index", rc);
        return false;
    }
    return true;
}

} // namespace vrixtool
