// Local files; see local_file.h.
#include "local_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <vector>

#include "failure.h"
#include "text.h"

namespace zorvan::copy {
namespace {

constexpr std::size_t sum_piece = 1U << 20U;

failure read_failure(const std::string& what, const std::string& path, int error) {
    return {exit_status::read_failed, file_problem(what, path, error)};
}

failure write_failure(const std::string& what, const std::string& path, int error) {
    return {exit_status::write_failed, file_problem(what, path, error)};
}

std::size_t read_at(int fd, std::uint64_t offset, std::span<unsigned char> into, const std::string& path) {
    std::size_t done = 0;
    while (done < into.size()) {
        const auto count =
            ::pread(fd, into.data() + done, into.size() - done, static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throw read_failure("cannot read", path, errno);
        if (count == 0) break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

void heed(const stop_flags& stop) {
    if (stop.interrupt && stop.interrupt->raised()) throw failure(exit_status::interrupted, "interrupted");
    if (stop.cancel && stop.cancel->raised()) throw cancelled();
}

bool same_content(const struct stat& left, const struct stat& right) {
    return left.st_size == right.st_size && left.st_mtim.tv_sec == right.st_mtim.tv_sec &&
           left.st_mtim.tv_nsec == right.st_mtim.tv_nsec;
}

}  // namespace

std::string file_problem(const std::string& what, const std::string& path, int error) {
    return what + " " + gridftp::printable(path) + ": " + std::generic_category().message(error);
}

// ---------------------------------------------------------------------------------- sent

source_file::source_file(const std::string& path) : path_(path) {
    file_ = descriptor(path == "-" ? ::dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file_ || ::fstat(file_.fd(), &status_) != 0) throw read_failure("cannot open", path_, errno);
    if (S_ISDIR(status_.st_mode)) throw read_failure("cannot read", path_, EISDIR);
}

std::optional<std::uint64_t> source_file::size() const {
    if (!S_ISREG(status_.st_mode) || path_ == "-") return std::nullopt;
    return static_cast<std::uint64_t>(status_.st_size);
}

std::string source_file::stamp() const {
    return std::to_string(status_.st_mtim.tv_sec) + "." + std::to_string(status_.st_mtim.tv_nsec);
}

void source_file::start(std::uint64_t offset, bool summed, const stop_flags& stop) {
    const std::lock_guard held(mutex_);
    ended_ = false;
    offset_ = 0;
    sum_.reset();
    if (summed) sum_.emplace();
    std::vector<unsigned char> buffer(summed && offset > 0 ? sum_piece : 0);
    while (summed && offset_ < offset) {
        heed(stop);
        const auto wanted =
            static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size(), offset - offset_));
        const auto count = read_at(file_.fd(), offset_, {buffer.data(), wanted}, path_);
        if (count < wanted) {
            throw failure(exit_status::read_failed,
                          gridftp::printable(path_) + " changed while it was being sent");
        }
        sum_->add({buffer.data(), count});
        offset_ += count;
    }
    offset_ = offset;
}

source_file::piece source_file::next_of_stream(std::span<unsigned char> into, const stop_flags& stop) {
    while (!ended_) {
        wait_for(file_.fd(), POLLIN, std::nullopt, stop);
        const auto count = ::read(file_.fd(), into.data(), into.size());
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (count < 0) throw read_failure("cannot read", path_, errno);
        ended_ = count == 0;
        return taken(into.first(static_cast<std::size_t>(count)));
    }
    return {offset_, 0};
}

source_file::piece source_file::taken(std::span<const unsigned char> bytes) {
    const piece found{offset_, bytes.size()};
    if (sum_) sum_->add(bytes);
    offset_ += bytes.size();
    return found;
}

source_file::piece source_file::next(std::span<unsigned char> into, const stop_flags& stop) {
    const auto known = size();
    // No lock is held while a pipe is waited for: only one thread reads it.
    if (!known) return next_of_stream(into, stop);
    const std::lock_guard held(mutex_);
    if (ended_) return {offset_, 0};
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(into.size(), *known - offset_));
    const auto count = read_at(file_.fd(), offset_, into.first(wanted), path_);
    if (count == 0) {
        // Before the end of the data is announced: until then the server keeps nothing.
        struct stat now{};
        if (offset_ < *known || ::fstat(file_.fd(), &now) != 0 || !same_content(status_, now)) {
            throw failure(exit_status::read_failed,
                          gridftp::printable(path_) + " changed while it was being sent");
        }
        ended_ = true;
    }
    return taken(into.first(count));
}

// ------------------------------------------------------------------------------ received

part_file::part_file(std::string destination, bool keep) : destination_(std::move(destination)) {
    const auto name = name_for(destination_);
    const int how = O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | (keep ? 0 : O_TRUNC);
    file_ = descriptor(::open(name.c_str(), how, 0666));
    if (!file_) throw write_failure("cannot write", name, errno);
    struct stat status{};
    if (::fstat(file_.fd(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw write_failure("cannot write", name, EEXIST);
    }
}

std::uint64_t part_file::size() const {
    struct stat status{};
    if (::fstat(file_.fd(), &status) != 0)
        throw write_failure("cannot look at", name_for(destination_), errno);
    return static_cast<std::uint64_t>(status.st_size);
}

void part_file::write_at(std::uint64_t offset, std::span<const unsigned char> bytes) {
    while (!bytes.empty()) {
        const auto count = ::pwrite(file_.fd(), bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) throw write_failure("cannot write", name_for(destination_), count == 0 ? EIO : errno);
        bytes = bytes.subspan(static_cast<std::size_t>(count));
        offset += static_cast<std::uint64_t>(count);
    }
}

void part_file::truncate(std::uint64_t size) {
    if (::ftruncate(file_.fd(), static_cast<off_t>(size)) != 0) {
        throw write_failure("cannot cut", name_for(destination_), errno);
    }
}

std::string part_file::md5(const stop_flags& stop) const {
    md5_sum sum;
    std::vector<unsigned char> buffer(sum_piece);
    for (std::uint64_t offset = 0;;) {
        heed(stop);
        const auto count = read_at(file_.fd(), offset, buffer, name_for(destination_));
        if (count == 0) return sum.finish();
        sum.add({buffer.data(), count});
        offset += count;
    }
}

void part_file::publish() {
    if (::rename(name_for(destination_).c_str(), destination_.c_str()) != 0) {
        throw write_failure("cannot make", destination_, errno);
    }
    // Some file systems tell only here that there was no room.
    const int fd = ::dup(file_.fd());
    file_.close();
    if (fd >= 0 && ::close(fd) != 0 && errno != EINTR)
        throw write_failure("cannot write", destination_, errno);
}

void part_file::remove() noexcept {
    ::unlink(name_for(destination_).c_str());
}

output_stream::output_stream(const std::string& path) : path_(path) {
    file_ = descriptor(path == "-" ? ::dup(STDOUT_FILENO) : ::open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file_) throw write_failure("cannot write", path_, errno);
}

void output_stream::write(std::span<const unsigned char> bytes, const stop_flags& stop) {
    while (!bytes.empty()) {
        wait_for(file_.fd(), POLLOUT, std::nullopt, stop);
        // A pipe that has room for something takes at least this much without blocking.
        const auto piece = bytes.first(std::min<std::size_t>(bytes.size(), PIPE_BUF));
        const auto count = ::write(file_.fd(), piece.data(), piece.size());
        if (count < 0 && errno != EINTR && errno != EAGAIN) throw write_failure("cannot write", path_, errno);
        if (count > 0) bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

}  // namespace zorvan::copy
