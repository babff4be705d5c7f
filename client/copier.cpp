// The copying of files and folders; see copier.h.
#include "copier.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "download.h"
#include "text.h"
#include "tree.h"
#include "upload.h"

namespace zorvan::copy {
namespace {

constexpr milliseconds between_saves{150};

display_kind kind_of_display(const settings& wanted) {
    if (wanted.quiet || wanted.no_progress) return display_kind::none;
    // The dialogue would tear the line apart.
    if (::isatty(STDERR_FILENO) == 1 && !wanted.verbose) return display_kind::bar;
    return wanted.show_progress ? display_kind::lines : display_kind::none;
}

std::optional<struct stat> status_of(const std::string& path) {
    struct stat status{};
    if (::stat(path.c_str(), &status) != 0) return std::nullopt;
    return status;
}

bool is_folder(const std::string& path) {
    const auto status = status_of(path);
    return status && S_ISDIR(status->st_mode);
}

bool is_stream(const std::string& path) {
    const auto status = status_of(path);
    return path == "-" || (status && !S_ISREG(status->st_mode) && !S_ISDIR(status->st_mode));
}

std::string absolute(const std::string& path) {
    std::error_code error;
    const auto full = std::filesystem::absolute(path, error);
    return error ? path : full.lexically_normal().string();
}

void make_local_folder(const std::string& path) {
    std::error_code error;
    std::filesystem::create_directories(path, error);
    if (error) throw failure(exit_status::write_failed, file_problem("cannot make", path, error.value()));
}

/// What makes it useless to go on with other files.
bool ends_all(exit_status status) {
    switch (status) {
        case exit_status::host_not_resolved:
        case exit_status::connect_failed:
        case exit_status::login_denied:
        case exit_status::timed_out:
        case exit_status::interrupted:
        case exit_status::bad_usage:
            return true;
        default:
            return false;
    }
}

}  // namespace

copier::copier(settings wanted, const flag& interrupt)
    : wanted_(std::move(wanted)), interrupt_(interrupt), display_(kind_of_display(wanted_)) {}

// ---------------------------------------------------------------------------- messages

void copier::note(const std::string& text) const {
    if (!wanted_.quiet) std::fprintf(stderr, "zorvan-copy: %s\n", text.c_str());
}

void copier::report(const failure& error, const std::string& name) {
    const auto number = static_cast<int>(error.status());
    const auto subject = name.empty() ? std::string() : gridftp::printable(name) + ": ";
    std::fprintf(stderr, "zorvan-copy: (%d) %s%s\n", number, subject.c_str(), error.what());
    if (status_ == exit_status::ok) status_ = error.status();
}

// ----------------------------------------------------------------------------- session

session& copier::connected() {
    if (!session_) {
        if (!who_) who_ = find_credentials(server_, wanted_.netrc);
        session_.emplace(server_, who_->user, who_->password, wanted_.limits, interrupt_, wanted_.verbose);
    }
    return *session_;
}

void copier::pause() {
    try {
        const stop_flags stop{&interrupt_, nullptr};
        wait_for(-1, 0, clock::now() + wanted_.retry_pause, stop);
    } catch (const cancelled&) {
        // Nobody cancels here.
    }
}

// ------------------------------------------------------------------------- restart files

std::string copier::restart_path(const job& what) const {
    return wanted_.restart_file.empty() ? what.local + ".restart" : wanted_.restart_file;
}

void copier::save(const std::string& path, const restart_record& record) {
    saved_ = clock::now();
    try {
        write_restart_file(path, record);
    } catch (const failure&) {
        // Asked for, it has to be there; otherwise the copy itself is what counts.
        if (wanted_.resume) throw;
    }
}

// ---------------------------------------------------------------------------- checksums

bool copier::wants_sum(bool extended) const {
    return wanted_.checksum == checksum_choice::md5 ||
           (wanted_.checksum == checksum_choice::automatic && extended);
}

void copier::verify(const std::string& remote, const std::string& own_sum, const std::string& what) {
    const auto sum = connected().md5(remote);
    if (!sum) {
        const std::string text = "the server has no checksums: the copy is not verified";
        if (wanted_.checksum == checksum_choice::md5) throw failure(exit_status::command_refused, text);
        note(text);
    } else if (*sum != own_sum) {
        throw failure(exit_status::checksum_mismatch,
                      "checksums differ: MD5 here " + own_sum + ", on the server " + *sum + what);
    } else if (wanted_.verbose) {
        note("MD5 " + own_sum + " verified");
    }
}

// ------------------------------------------------------------------------------ uploads

void copier::upload_once(const job& what, restart_record& record) {
    source_file source(what.local);
    const auto size = source.size();
    restart_record now;
    now.upload = true;
    now.remote = display_url(server_, what.remote);
    now.local = absolute(what.local);
    now.size = size.value_or(0);
    now.stamp = source.stamp();
    if (size && record.same_transfer(now)) now.ranges = record.ranges;
    record = now;

    auto& with = connected();
    upload_request request;
    request.path = what.remote;
    request.offset = record.ranges.run_end(0);
    request.extended = size && (wanted_.extended || request.offset > 0);
    request.active = wanted_.active;
    request.connections = wanted_.parallel;
    request.block_size = wanted_.block_size;
    request.summed = wants_sum(request.extended);
    const auto file = restart_path(what);
    request.stored = [&](const std::string& text) {
        const auto ranges = gridftp::range_list::parse(text);
        if (!ranges) return;
        auto all = record.ranges;
        for (const auto& [begin, end] : ranges->ranges()) {
            all.add(begin, end);
        }
        // When all is stored only the server's last step is missing, which a restart with nothing to send
        // cannot ask for.
        if (all.run_end(0) == 0 || all.run_end(0) >= record.size) return;
        record.ranges = all;
        save(file, record);
    };
    request.tick = [&](std::uint64_t done) { display_.update(done); };
    if (request.offset > 0) note("going on at byte " + std::to_string(request.offset));
    display_.begin(base_name(what.local), size, request.offset);
    try {
        upload(with, source, request);
    } catch (const cannot_resume& error) {
        display_.end(false);
        note(std::string("the server cannot go on, beginning anew: ") + error.what());
        record.ranges = {};
        remove_restart_file(file);
        upload_once(what, record);
        return;
    }
    if (request.summed) verify(what.remote, source.md5(), ", where the copy is wrong");
    display_.end(true);
    remove_restart_file(file);
}

void copier::upload_all(const location& source) {
    const auto& to = wanted_.destination.path;
    const bool into = wanted_.destination.names_folder();
    if (source.path == "-") {
        if (into)
            throw failure(exit_status::bad_usage, "standard input needs the name of a file to be written to");
        attempt({source.path, to}, &copier::upload_once);
        return;
    }
    auto name = base_name(source.path);
    if (name.empty() || name == "." || name == "..") name = base_name(absolute(source.path));
    const auto target = into ? join(to, name) : to;
    if (!is_folder(source.path)) {
        attempt({source.path, target}, &copier::upload_once);
        return;
    }
    if (!wanted_.recursive) {
        throw failure(exit_status::read_failed,
                      gridftp::printable(source.path) + " is a folder: --recursive copies those");
    }
    const auto items = walk_local(source.path, [&](const failure& error) { report(error, {}); });
    for (const auto& item : items) {
        const auto remote = item.path.empty() ? target : join(target, item.path);
        if (item.folder) {
            connected().make_folder(remote);
        } else {
            attempt({join(source.path, item.path), remote}, &copier::upload_once);
        }
    }
}

// ---------------------------------------------------------------------------- downloads

void copier::download_once(const job& what, restart_record& record) {
    auto& with = connected();
    const auto size = with.size(what.remote);
    restart_record now;
    now.remote = display_url(server_, what.remote);
    now.local = absolute(what.local);
    now.size = size.value_or(0);
    now.stamp = with.modification_time(what.remote);
    const auto file = restart_path(what);
    const auto part = status_of(part_file::name_for(what.local));
    if (size && record.same_transfer(now) && part && !record.ranges.empty() &&
        static_cast<std::uint64_t>(part->st_size) >= record.ranges.ranges().back().second) {
        now.ranges = record.ranges;
    }
    record = now;

    part_file target(what.local, !record.ranges.empty());
    download_request request;
    request.path = what.remote;
    request.extended = wanted_.extended;
    request.active = wanted_.active;
    request.connections = wanted_.parallel;
    request.size = size;
    request.received = &record.ranges;
    request.tick = [&](const gridftp::range_list& received) {
        display_.update(received.bytes());
        if (size && !received.empty() && clock::now() - saved_ >= between_saves) {
            auto saved = record;
            saved.ranges = received;
            save(file, saved);
        }
    };
    if (!record.ranges.empty())
        note("going on, " + format_bytes(record.ranges.bytes()) + " are here already");
    display_.begin(base_name(what.remote), size, record.ranges.bytes());
    saved_ = clock::now();
    try {
        // A part that is complete but was not verified any more.
        if (!size || *size == 0 || record.ranges.bytes() < *size) download(with, target, request);
    } catch (const std::exception&) {
        if (size && !record.ranges.empty()) {
            save(file, record);
        } else {
            target.remove();
            remove_restart_file(file);
        }
        throw;
    }
    if (wants_sum(request.extended)) {
        const auto own = target.md5({&interrupt_, nullptr});
        try {
            verify(what.remote, own, "; the download is thrown away");
        } catch (const failure& error) {
            if (error.status() == exit_status::checksum_mismatch) {
                target.remove();
                remove_restart_file(file);
                record.ranges = {};
            }
            throw;
        }
    }
    target.publish();
    display_.end(true);
    remove_restart_file(file);
}

void copier::download_to_stream(const std::string& local, const std::string& remote) {
    auto& with = connected();
    output_stream target(local);
    download_request request;
    request.path = remote;
    request.active = wanted_.active;
    request.size = with.size(remote);
    display_.begin(base_name(remote), request.size, 0);
    const auto bytes = download(with, target, request, [&](std::uint64_t done) { display_.update(done); });
    display_.update(bytes);
    display_.end(true);
}

void copier::download_all(const location& source) {
    const auto& to = wanted_.destination.path;
    const auto name = base_name(source.path);
    if (is_stream(to)) {
        if (wanted_.sources.size() > 1) throw failure(exit_status::bad_usage, "the destination is no folder");
        download_to_stream(to, source.path);
        return;
    }
    const bool into = wanted_.destination.names_folder() || is_folder(to);
    if (wanted_.sources.size() > 1 && !into)
        throw failure(exit_status::bad_usage, "the destination is no folder");
    if (into && name.empty() && !wanted_.recursive) {
        throw failure(exit_status::bad_usage, "the address names no file");
    }
    const auto target = into && !name.empty() ? join(to, name) : to;
    if (!wanted_.recursive || !connected().is_folder(source.path)) {
        attempt({target, source.path}, &copier::download_once);
        return;
    }
    for (const auto& item : walk_remote(connected(), source.path)) {
        const auto local = item.path.empty() ? target : join(target, item.path);
        if (item.folder) {
            make_local_folder(local);
        } else {
            const auto end = local.rfind('/');
            if (end != std::string::npos && end > 0) make_local_folder(local.substr(0, end));
            attempt({local, join(source.path, item.path)}, &copier::download_once);
        }
    }
}

// --------------------------------------------------------------------------------- tries

void copier::attempt(const job& what, void (copier::*once)(const job&, restart_record&)) {
    restart_record record;
    const bool uploads = once == &copier::upload_once;
    if (wanted_.resume) {
        if (auto found = read_restart_file(restart_path(what))) record = std::move(*found);
    }
    const auto name = uploads ? what.local : display_url(server_, what.remote);
    for (unsigned tries = 0;; ++tries) {
        try {
            (this->*once)(what, record);
            return;
        } catch (const failure& error) {
            display_.end(false);
            // Its replies may still come.
            session_.reset();
            const bool again = error.passing() && tries < wanted_.retries && what.local != "-";
            if (!again) {
                report(error, name);
                if (ends_all(error.status())) throw cancelled();
                return;
            }
            note(std::string(error.what()) + "; trying again in " +
                 std::to_string(wanted_.retry_pause.count()) + " s, " +
                 std::to_string(wanted_.retries - tries) + " tries left");
        }
        pause();
    }
}

void copier::copy_source(const location& source) {
    server_ = source.remote() ? *source.server : *wanted_.destination.server;
    if (source.remote()) {
        download_all(source);
    } else {
        upload_all(source);
    }
}

exit_status copier::run() {
    std::optional<server_address> last;
    try {
        for (const auto& source : wanted_.sources) {
            const auto& server = source.remote() ? *source.server : *wanted_.destination.server;
            if (!(last == server)) {
                session_.reset();
                who_.reset();
            }
            last = server;
            try {
                copy_source(source);
            } catch (const failure& error) {
                display_.end(false);
                session_.reset();
                report(error, {});
                if (ends_all(error.status())) break;
            }
        }
        if (session_) session_->quit();
    } catch (const cancelled&) {
        // Reported already.
    }
    return status_;
}

}  // namespace zorvan::copy
