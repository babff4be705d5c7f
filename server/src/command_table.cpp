/*
 * The rows of the command table; see command_table.h. Kept sorted: find_command() searches by halves.
 */
#include "command_table.h"

#include <algorithm>
#include <array>

#include "text.h"
#include "verbs.h"

namespace zorvan::gridftp {

namespace {

using enum argument_rule;

constexpr std::array commands = {
    command_entry{"ABOR", "", ignored, false, handle_abor},
    command_entry{"ACCT", "<account>", optional, true, handle_acct},
    command_entry{"ALLO", "<size> [R <record size>]", required, false, handle_allo},
    command_entry{"APPE", "<path>", required, false, handle_appe},
    command_entry{"AUTH", "<mechanism>", required, true, handle_auth},
    command_entry{"CCC", "", ignored, true, handle_ccc},
    command_entry{"CDUP", "", none, false, handle_cdup},
    command_entry{"CKSM", "<algorithm> <offset> <length> <path>", required, false, handle_cksm},
    command_entry{"CLNT", "<client>", optional, true, handle_clnt},
    command_entry{"CWD", "[<path>]", optional, false, handle_cwd},
    command_entry{"DCAU", "N", required, true, handle_dcau},
    command_entry{"DELE", "<path>", required, false, handle_dele},
    command_entry{"EPRT", "|<protocol>|<address>|<port>|", required, false, handle_eprt},
    command_entry{"EPSV", "[1|2|ALL]", optional, false, handle_epsv},
    command_entry{"ERET", "P <offset> <length> <path>", required, false, handle_eret},
    command_entry{"ESTO", "A <offset> <path>", required, false, handle_esto},
    command_entry{"FEAT", "", none, true, handle_feat},
    command_entry{"HASH", "<path>", required, false, handle_hash},
    command_entry{"HELP", "[<command>]", optional, true, handle_help},
    command_entry{"HOST", "<host>", required, true, handle_host},
    command_entry{"LANG", "[<language>]", optional, true, handle_lang},
    command_entry{"LIST", "[<path>]", optional, false, handle_list},
    command_entry{"MDTM", "<path>", required, false, handle_mdtm},
    command_entry{"MFMT", "<time> <path>", required, false, handle_mfmt},
    command_entry{"MKD", "<path>", required, false, handle_mkd},
    command_entry{"MLSD", "[<path>]", optional, false, handle_mlsd},
    command_entry{"MLST", "[<path>]", optional, false, handle_mlst},
    command_entry{"MODE", "S|E", required, false, handle_mode},
    command_entry{"NLST", "[<path>]", optional, false, handle_nlst},
    command_entry{"NOOP", "", ignored, true, handle_noop},
    command_entry{"OPTS", "<command> [<options>]", required, true, handle_opts},
    command_entry{"PASS", "<password>", optional, true, handle_pass},
    command_entry{"PASV", "", none, false, handle_pasv},
    command_entry{"PBSZ", "<size>", required, true, handle_pbsz},
    command_entry{"PORT", "<h1,h2,h3,h4,p1,p2>", required, false, handle_port},
    command_entry{"PROT", "C", required, true, handle_prot},
    command_entry{"PWD", "", none, false, handle_pwd},
    command_entry{"QUIT", "", ignored, true, handle_quit},
    command_entry{"REIN", "", none, true, handle_rein},
    command_entry{"REST", "<offset>|<begin>-<end>,...", required, false, handle_rest},
    command_entry{"RETR", "<path>", required, false, handle_retr},
    command_entry{"RMD", "<path>", required, false, handle_rmd},
    command_entry{"RNFR", "<path>", required, false, handle_rnfr},
    command_entry{"RNTO", "<path>", required, false, handle_rnto},
    command_entry{"SBUF", "<size>", required, false, handle_sbuf},
    command_entry{"SCKS", "<algorithm> <value>", required, false, handle_scks},
    command_entry{"SITE", "<command> [<argument>]", required, false, handle_site},
    command_entry{"SIZE", "<path>", required, false, handle_size},
    command_entry{"SPAS", "", none, false, handle_spas},
    command_entry{"SPOR", "<h1,h2,h3,h4,p1,p2>", required, false, handle_spor},
    command_entry{"STAT", "[<path>]", optional, false, handle_stat},
    command_entry{"STOR", "<path>", required, false, handle_stor},
    command_entry{"STOU", "", ignored, false, handle_stou},
    command_entry{"STRU", "F", required, false, handle_stru},
    command_entry{"SYST", "", ignored, true, handle_syst},
    command_entry{"TYPE", "A|I|L 8", required, false, handle_type},
    command_entry{"USER", "<user>", required, true, handle_user},
    command_entry{"XCUP", "", none, false, handle_cdup},
    command_entry{"XCWD", "[<path>]", optional, false, handle_cwd},
    command_entry{"XMD5", "<path>", required, false, handle_xmd5},
    command_entry{"XMKD", "<path>", required, false, handle_mkd},
    command_entry{"XPWD", "", none, false, handle_pwd},
    command_entry{"XRMD", "<path>", required, false, handle_rmd},
};

constexpr bool sorted() {
    for (std::size_t index = 1; index < commands.size(); ++index) {
        if (!(commands[index - 1].verb < commands[index].verb)) return false;
    }
    return true;
}
static_assert(sorted(), "find_command() needs the rows in order");

}  // namespace

const command_entry* find_command(std::string_view verb) {
    const std::string wanted = ascii_upper(verb);
    const auto row =
        std::lower_bound(commands.begin(), commands.end(), wanted,
                         [](const command_entry& entry, std::string_view name) { return entry.verb < name; });
    return row != commands.end() && row->verb == wanted ? &*row : nullptr;
}

std::span<const command_entry> all_commands() {
    return commands;
}

}  // namespace zorvan::gridftp
