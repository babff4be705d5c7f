/*
 * Declarations of the command handlers, group by group as their source files are. Each runs on the session's
 * strand, sends exactly one final reply and leaves the session usable whatever happened; see command_table.h
 * for the shape.
 */
#pragma once

#include <string_view>

#include "async.h"

namespace zorvan::gridftp {

class session;

// session_verbs.cpp: who is there, and what the server can do
task<void> handle_user(session& client, std::string_view argument);
task<void> handle_pass(session& client, std::string_view argument);
task<void> handle_acct(session& client, std::string_view argument);
task<void> handle_quit(session& client, std::string_view argument);
task<void> handle_rein(session& client, std::string_view argument);
task<void> handle_host(session& client, std::string_view argument);
task<void> handle_feat(session& client, std::string_view argument);
task<void> handle_opts(session& client, std::string_view argument);
task<void> handle_syst(session& client, std::string_view argument);
task<void> handle_clnt(session& client, std::string_view argument);
task<void> handle_help(session& client, std::string_view argument);
task<void> handle_noop(session& client, std::string_view argument);
task<void> handle_lang(session& client, std::string_view argument);

// parameter_verbs.cpp: how data travel
task<void> handle_type(session& client, std::string_view argument);
task<void> handle_mode(session& client, std::string_view argument);
task<void> handle_stru(session& client, std::string_view argument);
task<void> handle_pasv(session& client, std::string_view argument);
task<void> handle_epsv(session& client, std::string_view argument);
task<void> handle_port(session& client, std::string_view argument);
task<void> handle_eprt(session& client, std::string_view argument);
task<void> handle_spas(session& client, std::string_view argument);
task<void> handle_spor(session& client, std::string_view argument);
task<void> handle_allo(session& client, std::string_view argument);
task<void> handle_rest(session& client, std::string_view argument);
task<void> handle_sbuf(session& client, std::string_view argument);
task<void> handle_auth(session& client, std::string_view argument);
task<void> handle_pbsz(session& client, std::string_view argument);
task<void> handle_prot(session& client, std::string_view argument);
task<void> handle_ccc(session& client, std::string_view argument);
task<void> handle_dcau(session& client, std::string_view argument);

// file_verbs.cpp: transfers and what concerns one file
task<void> handle_retr(session& client, std::string_view argument);
task<void> handle_eret(session& client, std::string_view argument);
task<void> handle_stor(session& client, std::string_view argument);
task<void> handle_esto(session& client, std::string_view argument);
task<void> handle_appe(session& client, std::string_view argument);
task<void> handle_stou(session& client, std::string_view argument);
task<void> handle_abor(session& client, std::string_view argument);
task<void> handle_size(session& client, std::string_view argument);
task<void> handle_mdtm(session& client, std::string_view argument);
task<void> handle_mfmt(session& client, std::string_view argument);
task<void> handle_dele(session& client, std::string_view argument);
task<void> handle_rnfr(session& client, std::string_view argument);
task<void> handle_rnto(session& client, std::string_view argument);

// checksum_verbs.cpp
task<void> handle_scks(session& client, std::string_view argument);
task<void> handle_cksm(session& client, std::string_view argument);
task<void> handle_hash(session& client, std::string_view argument);
task<void> handle_xmd5(session& client, std::string_view argument);

// directory_verbs.cpp
task<void> handle_cwd(session& client, std::string_view argument);
task<void> handle_cdup(session& client, std::string_view argument);
task<void> handle_pwd(session& client, std::string_view argument);
task<void> handle_mkd(session& client, std::string_view argument);
task<void> handle_rmd(session& client, std::string_view argument);

// listing_verbs.cpp
task<void> handle_list(session& client, std::string_view argument);
task<void> handle_nlst(session& client, std::string_view argument);
task<void> handle_mlsd(session& client, std::string_view argument);
task<void> handle_mlst(session& client, std::string_view argument);
task<void> handle_stat(session& client, std::string_view argument);

// site_verbs.cpp
task<void> handle_site(session& client, std::string_view argument);

}  // namespace zorvan::gridftp
