#include "output_file.h"

#include "library.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vrixtool {

namespace {

// A name for standard output itself (/dev/stdout, /dev/fd/1, the terminal or
// file it is), which is written like "-".
bool same_file_as_results(const std::string &path) {
    struct stat a {
    }, b{};
    return stat(path.c_str(), &a) == 0 && fstat(fileno(out()), &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

} // namespace

OutputFile::~OutputFile() {
    discard();
}

void OutputFile::discard() {
    if (file_ && !standardOutput_) std::fclose(file_);
    file_ = nullptr;
    if (!part_.empty()) unlink(part_.c_str());
    part_.clear();
}

bool OutputFile::open(const std::string &path, const char *command) {
    discard();
    standardOutput_ = emptyOnFirstWrite_ = failed_ = false;
    path_ = path;
    command_ = command;
    if (path == "-" || same_file_as_results(path)) {
        file_ = claim_stdout();
        standardOutput_ = file_ != nullptr;
        if (!file_) std::fprintf(stderr, "vrixdb %s: cannot write to standard output\n", command);
        return file_ != nullptr;
    }
    struct stat st {};
    const bool there = lstat(path.c_str(), &st) == 0;
    if (there && S_ISDIR(st.st_mode)) {
        std::fprintf(stderr, "vrixdb %s: %s is a directory\n", command, path.c_str());
        return false;
    }
    int fd = -1;
    std::string target = path;
    if (!there || S_ISREG(st.st_mode)) {
        // A .part left by an earlier run goes; a link of that name is never followed.
        part_ = path + ".part";
        target = part_;
        unlink(part_.c_str());
        fd = ::open(part_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
        if (fd < 0) part_.clear();
    } else {
        // A FIFO opens once a reader is there; no O_TRUNC, see stream().
        fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_NOCTTY | O_CLOEXEC, 0666);
        struct stat opened {};
        emptyOnFirstWrite_ = fd >= 0 && fstat(fd, &opened) == 0 && S_ISREG(opened.st_mode);
    }
    if (fd >= 0 && !(file_ = fdopen(fd, "wb"))) close(fd);
    if (!file_) {
        std::fprintf(stderr, "vrixdb %s: cannot write %s: %s\n", command, target.c_str(),
                     std::strerror(errno));
        discard();
        return false;
    }
    return true;
}

FILE *OutputFile::stream() {
    if (emptyOnFirstWrite_ && file_) {
        emptyOnFirstWrite_ = false;
        failed_ = ftruncate(fileno(file_), 0) != 0;
    }
    return file_;
}

bool OutputFile::commit() {
    if (!file_) return false;
    bool ok = !failed_ && std::fflush(file_) == 0 && !std::ferror(file_);
    if (!part_.empty()) ok = fsync(fileno(file_)) == 0 && ok;
    if (!standardOutput_) ok = std::fclose(file_) == 0 && ok;
    file_ = nullptr;
    if (ok && !part_.empty()) {
        ok = std::rename(part_.c_str(), path_.c_str()) == 0;
        if (ok) part_.clear();
    }
    if (!ok) {
        const int err = errno;
        std::fprintf(stderr, "vrixdb %s: writing %s failed%s%s\n", command_, path_.c_str(),
                     err ? ": " : "", err ? std::strerror(err) : "");
        discard();
    }
    return ok;
}

} // namespace vrixtool
