// Files of this machine: one that is sent, whose content must not change meanwhile, and one that is received.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "md5.h"
#include "socket.h"

namespace zorvan::copy {

/// What is read to be sent: pieces in order, to any number of threads.
class source_file {
  public:
    /// @param path  "-" is standard input  @throws failure  read_failed
    explicit source_file(const std::string& path);

    /// Of a regular file. @return nothing for a pipe or a device
    std::optional<std::uint64_t> size() const;
    /// Changes whenever the content does, as far as the file system tells.
    std::string stamp() const;

    /// Begin at this offset. @param summed  also sum up everything from the file's beginning on, what lies
    /// before the offset included, which is read for it
    void start(std::uint64_t offset, bool summed, const stop_flags& stop);

    struct piece {
        std::uint64_t offset = 0;
        std::size_t size = 0;  ///< 0: the end
    };
    /// The next bytes, as many as fit unless the file ends. At the end it has been seen that nothing changed.
    /// What is no regular file is read by one thread alone.
    /// @throws failure  read_failed
    piece next(std::span<unsigned char> into, const stop_flags& stop);

    /// The sum of the whole file; after the end.
    std::string md5() { return sum_->finish(); }

  private:
    piece next_of_stream(std::span<unsigned char> into, const stop_flags& stop);
    piece taken(std::span<const unsigned char> bytes);

    std::string path_;
    descriptor file_;
    struct stat status_{};
    std::mutex mutex_;  // guards what follows
    std::uint64_t offset_ = 0;
    bool ended_ = false;
    std::optional<md5_sum> sum_;
};

/// What is received into a file beside the destination, which takes the destination's name only when all is
/// good.
class part_file {
  public:
    /// @param keep  go on with what a former run left, if it is there  @throws failure  write_failed
    part_file(std::string destination, bool keep);

    /// The name that the file has until then.
    static std::string name_for(const std::string& destination) { return destination + ".part"; }
    std::uint64_t size() const;
    /// Any thread. @throws failure  write_failed
    void write_at(std::uint64_t offset, std::span<const unsigned char> bytes);
    void truncate(std::uint64_t size);
    /// The sum of the file.
    std::string md5(const stop_flags& stop) const;
    /// Give it the destination's name.
    void publish();
    void remove() noexcept;

  private:
    std::string destination_;
    descriptor file_;
};

/// Writes to what is no regular file: a pipe, a device, standard output ("-"). In order.
class output_stream {
  public:
    explicit output_stream(const std::string& path);
    void write(std::span<const unsigned char> bytes, const stop_flags& stop);

  private:
    std::string path_;
    descriptor file_;
};

/// "cannot open /a/b: No such file or directory", for the terminal.
std::string file_problem(const std::string& what, const std::string& path, int error);

}  // namespace zorvan::copy
