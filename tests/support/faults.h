// Test support: a file layer that fails one operation of the library, as a
// full or failing disk would.  It counts the operations a kind of fault
// applies to (writes for a short write, locks for a busy database, ...) on
// paths under a root, and fails the Nth of them; with N = 0 it only counts.
#pragma once

#include "core/file_io.h"

#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace vrix::test {

enum class FaultKind : int {
    NoSpace, // ENOSPC on writes, truncations, syncs, made directories and created files
    IoError, // EIO on any operation but a lock
    Short,   // a write that lands part of its bytes
    Busy,    // a database lock that stays busy
};
constexpr FaultKind kFaultKinds[] = {FaultKind::NoSpace, FaultKind::IoError, FaultKind::Short,
                                     FaultKind::Busy};
inline const char *fault_name(FaultKind k) {
    static const char *const kNames[] = {"ENOSPC", "EIO", "short write", "busy"};
    return kNames[static_cast<int>(k)];
}

inline const char *op_name(io::Op op) {
    switch (op) {
    case io::Op::Open:
        return "open";
    case io::Op::Read:
        return "read";
    case io::Op::Write:
        return "write";
    case io::Op::Truncate:
        return "truncate";
    case io::Op::Sync:
        return "sync";
    case io::Op::Remove:
        return "remove";
    case io::Op::MakeDir:
        return "make dir";
    case io::Op::SyncDir:
        return "sync dir";
    case io::Op::SyncAll:
        return "sync all";
    case io::Op::Lock:
        return "lock";
    case io::Op::Rename:
        return "rename";
    }
    return "?";
}

// Whether a kind of fault applies to an operation.
inline bool applies(FaultKind k, const io::Access &a) {
    switch (k) {
    case FaultKind::NoSpace:
        return a.op == io::Op::Write || a.op == io::Op::Truncate || a.op == io::Op::Sync ||
               a.op == io::Op::SyncAll || a.op == io::Op::MakeDir || a.op == io::Op::Rename ||
               (a.op == io::Op::Open && a.create);
    case FaultKind::IoError:
        return a.op != io::Op::Lock;
    case FaultKind::Short:
        return a.op == io::Op::Write && a.length > 1;
    case FaultKind::Busy:
        return a.op == io::Op::Lock;
    }
    return false;
}

class FaultAt : public io::Observer {
  public:
    // Fails the `n`th operation (from 1) under `root` that `kind` applies to;
    // n = 0 fails none.  `on_fault` runs just before the failure, on the
    // failing thread.
    FaultAt(std::string root, FaultKind kind, long n,
            std::function<void(const io::Access &)> on_fault = {})
        : root_(std::move(root)), kind_(kind), n_(n), on_fault_(std::move(on_fault)) {
        io::set_observer(this);
    }
    ~FaultAt() override { io::set_observer(nullptr); }
    FaultAt(const FaultAt &) = delete;
    FaultAt &operator=(const FaultAt &) = delete;

    void before(const io::Access &) override {}
    io::Fault fault(const io::Access &a) override {
        if (!a.path || std::strncmp(a.path, root_.c_str(), root_.size()) != 0 || !applies(kind_, a))
            return {};
        const long seen = ++count_;
        if (seen != n_) return {};
        {
            const std::lock_guard hold(mutex_);
            failed_op_ = a.op;
            failed_path_ = a.path;
        }
        if (on_fault_) on_fault_(a);
        io::Fault f;
        switch (kind_) {
        case FaultKind::NoSpace:
            f.error = ENOSPC;
            break;
        case FaultKind::IoError:
            f.error = EIO;
            break;
        case FaultKind::Short:
            f.keep = static_cast<long long>(a.length / 2);
            break;
        case FaultKind::Busy:
            f.error = EBUSY;
            break;
        }
        return f;
    }

    long count() const { return count_.load(); }
    bool fired() const { return n_ > 0 && count_.load() >= n_; }
    io::Op failed_op() const {
        const std::lock_guard hold(mutex_);
        return failed_op_;
    }
    std::string failed_path() const {
        const std::lock_guard hold(mutex_);
        return failed_path_;
    }

  private:
    std::string root_;
    FaultKind kind_;
    long n_;
    std::function<void(const io::Access &)> on_fault_;
    std::atomic<long> count_{0};
    mutable std::mutex mutex_;
    io::Op failed_op_ = io::Op::Read;
    std::string failed_path_;
};

} // namespace vrix::test
