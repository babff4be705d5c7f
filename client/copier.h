// All that one command line asks for: which files there are, tries, restart files, checksums, messages. One
// thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "credentials.h"
#include "local_file.h"
#include "options.h"
#include "progress.h"
#include "restart_file.h"
#include "session.h"

namespace zorvan::copy {

class copier {
  public:
    /// @param interrupt  ends whatever goes on; outlives the copier
    copier(settings wanted, const flag& interrupt);

    /// Copy everything. Failures are printed. @return the first one's status
    exit_status run();

  private:
    struct job {
        std::string local;
        std::string remote;
    };

    void copy_source(const location& source);
    void upload_all(const location& source);
    void download_all(const location& source);
    /// Run one file's copy as often as it takes, and keep its failure.
    void attempt(const job& what, void (copier::*once)(const job&, restart_record&));
    void upload_once(const job& what, restart_record& record);
    void download_once(const job& what, restart_record& record);
    void download_to_stream(const std::string& local, const std::string& remote);
    void verify(const std::string& remote, const std::string& own_sum, const std::string& what);

    session& connected();
    bool wants_sum(bool extended) const;
    std::string restart_path(const job& what) const;
    void save(const std::string& path, const restart_record& record);
    void note(const std::string& text) const;
    void report(const failure& error, const std::string& name);
    void pause();

    settings wanted_;
    const flag& interrupt_;
    server_address server_;
    std::optional<credentials> who_;
    std::optional<session> session_;
    progress_display display_;
    exit_status status_ = exit_status::ok;
    clock::time_point saved_;
};

}  // namespace zorvan::copy
