// Servers that lie, babble, break off or fall silent: the client ends with an error, and leaves nothing that
// looks complete.
#include <gtest/gtest.h>

#include "scripted_server.h"
#include "temporary_folder.h"

namespace zorvan::copy {
namespace {

constexpr unsigned end_of_file = 0x40;
constexpr unsigned end_of_data = 0x08;

/// A download of 10 bytes in extended mode, up to the data.
endpoint begin_download(peer& control) {
    control.log_in();
    control.answer("SIZE", "213 10");
    control.answer("MDTM", "213 20260101000000");
    control.answer("MODE", "200 ok");
    control.answer("OPTS", "200 ok");
    const auto client = control.active();
    control.answer("RETR", "150 here");
    return client;
}

class HostileServer : public testing::Test {
  protected:
    /// Run a download against the script; its status. Nothing must be left that looks like the file.
    exit_status download(const scripted_server::script& script,
                         std::vector<std::string> options = {"--parallel", "2"}) {
        scripted_server server({script});
        options.insert(options.end(), {"--timeout", patience_, "--final-timeout", patience_, server.url("/x"),
                                       folder_.path("x")});
        const auto result = run_client(std::move(options));
        EXPECT_FALSE(folder_.has("x"));
        EXPECT_NE(result.messages.find("zorvan-copy: ("), std::string::npos) << result.messages;
        messages_ = result.messages;
        return result.status;
    }

    /// The same for blocks that the server sends over one connection, before it says that all is well.
    exit_status blocks(const std::string& bytes) {
        return download([&](peer& control) {
            auto data = connect_data(begin_download(control));
            data.send(bytes);
            control.say("226 done");
            data.receive_all();
        });
    }

    exit_status upload(const scripted_server::script& script, std::size_t size,
                       std::vector<std::string> options = {}) {
        folder_.write("x", std::string(size, 'x'));
        scripted_server server({script});
        options.insert(options.end(), {"--timeout", patience_, "--final-timeout", patience_,
                                       folder_.path("x"), server.url("/x")});
        const auto result = run_client(std::move(options));
        messages_ = result.messages;
        return result.status;
    }

    /// For tests of silence: long enough for a busy machine to get as far as the silence.
    void be_impatient() { patience_ = "3"; }

    temporary_folder folder_;
    std::string messages_;
    std::string patience_ = "60";  // seconds
};

TEST_F(HostileServer, BabblesWithoutALineEnd) {
    EXPECT_EQ(download([](peer& control) {
                  for (;;) {
                      control.send(std::string(10000, '2'));
                  }
              }),
              exit_status::weird_reply);
}

TEST_F(HostileServer, BabblesWithoutALastLine) {
    EXPECT_EQ(download([](peer& control) {
                  control.say("220-welcome");
                  for (;;) {
                      control.say("220-" + std::string(1000, 'x'));
                  }
              }),
              exit_status::weird_reply);
}

TEST_F(HostileServer, AnswersWithPreliminaryRepliesForEver) {
    be_impatient();
    // Not an answer in time, however much it says.
    EXPECT_EQ(upload(
                  [](peer& control) {
                      control.log_in();
                      const auto listener = control.passive();
                      auto data = accept_data(listener);
                      control.answer("ALLO", "200 ok");
                      control.answer("STOR", "150 go on");
                      for (;;) {
                          control.say("112-Perf Marker\r\n Timestamp: 1\r\n112 End");
                      }
                  },
                  10),
              exit_status::timed_out);
}

TEST_F(HostileServer, SpeaksAnotherLanguage) {
    EXPECT_EQ(download([](peer& control) { control.say("SSH-2.0-x"); }), exit_status::weird_reply);
}

TEST_F(HostileServer, HangsUp) {
    EXPECT_EQ(download([](peer&) {}), exit_status::receive_failed);
    EXPECT_EQ(download([](peer& control) { control.say("421 too many users"); }), exit_status::access_denied);
}

TEST_F(HostileServer, SaysNothing) {
    be_impatient();
    EXPECT_EQ(download([](peer& control) { control.receive_all(); }), exit_status::timed_out);
}

TEST_F(HostileServer, NamesNoPort) {
    EXPECT_EQ(download(
                  [](peer& control) {
                      control.log_in();
                      control.answer("SIZE", "213 10");
                      control.answer("MDTM", "213 1");
                      control.answer("EPSV", "229 somewhere (|||99999|)");
                  },
                  {}),
              exit_status::weird_passive_reply);
    EXPECT_EQ(download(
                  [](peer& control) {
                      control.log_in();
                      control.answer("SIZE", "213 10");
                      control.answer("MDTM", "213 1");
                      control.answer("EPSV", "500 what");
                      control.answer("PASV", "227 (1,2,3,4,5,999)");
                  },
                  {}),
              exit_status::weird_passive_reply);
}

TEST_F(HostileServer, LiesAboutTheSize) {
    EXPECT_EQ(download([](peer& control) {
                  control.log_in();
                  control.answer("SIZE", "213 ten");
              }),
              exit_status::weird_reply);
    const auto stream = [](const std::string& bytes) {
        return [bytes](peer& control) {
            control.log_in();
            control.answer("SIZE", "213 10");
            control.answer("MDTM", "550 unknown");
            const auto listener = control.passive();
            auto data = accept_data(listener);
            control.answer("RETR", "150 here");
            data.send(bytes);
            data.close();
            control.say("226 done");
        };
    };
    EXPECT_EQ(download(stream(std::string(9, 'x')), {}), exit_status::partial_file);
    EXPECT_EQ(download(stream(std::string(11, 'x')), {}), exit_status::weird_reply);
}

TEST_F(HostileServer, SendsBlocksThatDoNotFit) {
    const std::string ten(10, 'x');
    const auto end = block(end_of_file | end_of_data, 1);
    EXPECT_EQ(blocks(block(0, 1, ten) + end), exit_status::weird_reply);                     // beyond the end
    EXPECT_EQ(blocks(block(0, ~0ULL - 3, ten) + end), exit_status::weird_reply);             // around the end
    EXPECT_EQ(blocks(block(0, 0, ten) + block(0, 4, "x") + end), exit_status::weird_reply);  // twice
    EXPECT_EQ(blocks(block(0x01, 0, ten) + end), exit_status::weird_reply);                  // unknown bits
    EXPECT_EQ(blocks(block(0x20, 0, ten) + end), exit_status::weird_reply);                  // suspect
    EXPECT_EQ(blocks(block(0, 0, "xxxxx") + end), exit_status::partial_file);                // a hole
    EXPECT_EQ(blocks(block(0, 5, "xxxxx") + end), exit_status::partial_file);
    EXPECT_EQ(blocks("what is this, if not a header?"), exit_status::weird_reply);
}

TEST_F(HostileServer, AnnouncesTheEndWrongly) {
    const auto all = block(0, 0, std::string(10, 'x'));
    EXPECT_EQ(blocks(all + block(end_of_file | end_of_data, 0)), exit_status::weird_reply);
    EXPECT_EQ(blocks(all + block(end_of_file | end_of_data, 1U << 30U)), exit_status::weird_reply);
    EXPECT_EQ(blocks(all + block(end_of_file, 1) + block(end_of_file | end_of_data, 1)),
              exit_status::weird_reply);
    EXPECT_EQ(blocks(all + block(end_of_data, 0)), exit_status::partial_file);                // never
    EXPECT_EQ(blocks(all + block(end_of_file | end_of_data, 2)), exit_status::partial_file);  // one too many
}

TEST_F(HostileServer, BreaksOffInsideABlock) {
    const auto whole = block(0, 0, std::string(10, 'x'));
    for (const std::size_t length : {0U, 5U, 20U, 27U}) {
        EXPECT_EQ(download([&](peer& control) {
                      auto data = connect_data(begin_download(control));
                      data.send(whole.substr(0, length));
                      data.close();
                      control.say("226 done");
                  }),
                  exit_status::partial_file)
            << length;
    }
    EXPECT_EQ(download([&](peer& control) {
                  auto data = connect_data(begin_download(control));
                  data.reset();
                  control.say("426 the connection broke");
              }),
              exit_status::download_refused);
}

TEST_F(HostileServer, FallsSilentInTheMiddle) {
    be_impatient();
    EXPECT_EQ(download([&](peer& control) {
                  auto data = connect_data(begin_download(control));
                  data.send(block(0, 0, "xxxxx"));
                  control.receive_all();
              }),
              exit_status::timed_out);
    // What came is kept for a later run.
    EXPECT_TRUE(folder_.has("x.part"));
    EXPECT_TRUE(folder_.has("x.restart"));
}

TEST_F(HostileServer, NeverConnects) {
    be_impatient();
    EXPECT_EQ(download([&](peer& control) {
                  begin_download(control);
                  control.receive_all();
              }),
              exit_status::timed_out);
    EXPECT_TRUE(folder_.names().empty());
}

TEST_F(HostileServer, IsNotTheOneThatConnects) {
    // Somebody else found the port first.
    EXPECT_EQ(download([&](peer& control) {
                  const auto client = begin_download(control);
                  auto stranger = connect_data(client, "127.0.0.2");
                  stranger.send(block(0, 0, std::string(10, 'b')) + block(end_of_file | end_of_data, 1));
                  stranger.receive_all();
                  control.say("226 done");
              }),
              exit_status::partial_file);
}

TEST_F(HostileServer, LiesAboutTheChecksum) {
    EXPECT_EQ(download([&](peer& control) {
                  auto data = connect_data(begin_download(control));
                  data.send(block(0, 0, std::string(10, 'x')) + block(end_of_file | end_of_data, 1));
                  control.say("226 done");
                  control.answer("CKSM", "213 00000000000000000000000000000000");
              }),
              exit_status::checksum_mismatch);
    EXPECT_TRUE(folder_.names().empty());
    EXPECT_EQ(download([&](peer& control) {
                  auto data = connect_data(begin_download(control));
                  data.send(block(0, 0, std::string(10, 'x')) + block(end_of_file | end_of_data, 1));
                  control.say("226 done");
                  control.answer("CKSM", "213 sum");
              }),
              exit_status::weird_reply);
}

TEST_F(HostileServer, TakesNothingAndSaysThatItIsStored) {
    be_impatient();
    EXPECT_EQ(upload(
                  [](peer& control) {
                      control.log_in();
                      const auto listener = control.passive();
                      auto data = accept_data(listener);
                      control.answer("ALLO", "200 ok");
                      control.answer("STOR", "150 here");
                      control.say("226 done");
                      control.receive_all();
                  },
                  64U << 20U),
              exit_status::timed_out);
}

TEST_F(HostileServer, CutsAnUpload) {
    EXPECT_EQ(upload(
                  [](peer& control) {
                      control.log_in();
                      const auto listener = control.passive();
                      auto data = accept_data(listener);
                      control.answer("ALLO", "200 ok");
                      control.answer("STOR", "150 here");
                      data.receive(1000);
                      data.reset();
                      control.say("552 no room");
                  },
                  64U << 20U),
              exit_status::upload_refused);
    EXPECT_NE(messages_.find("552 no room"), std::string::npos) << messages_;
}

TEST_F(HostileServer, RefusesAnUploadBeforeItBegins) {
    EXPECT_EQ(upload(
                  [](peer& control) {
                      control.log_in();
                      const auto listener = control.passive();
                      auto data = accept_data(listener);
                      control.answer("ALLO", "200 ok");
                      control.answer("STOR", "550-PERMISSION_DENIED\r\n550 \x1b[2Jnot yours");
                      EXPECT_EQ(data.receive_all(), "");
                  },
                  1000),
              exit_status::access_denied);
    EXPECT_NE(messages_.find("(9) "), std::string::npos);
    EXPECT_NE(messages_.find("\\x1b[2Jnot yours"), std::string::npos) << messages_;
}

TEST_F(HostileServer, ListsNamesThatLeadOut) {
    scripted_server server({[](peer& control) {
        control.log_in();
        control.answer("MLST", "250-here\r\n type=dir; /x\r\n250 end");
        const auto listener = control.passive();
        auto data = accept_data(listener);
        control.answer("MLSD", "150 here");
        data.send("type=file; ../../evil\r\n");
        data.close();
        control.say("226 done");
        control.receive_all();
    }});
    EXPECT_EQ(run_client({"--recursive", server.url("/x"), folder_.path("in")}).status,
              exit_status::weird_reply);
    EXPECT_TRUE(folder_.names().empty());
}

TEST_F(HostileServer, HasFoldersWithoutAnEnd) {
    scripted_server server({[](peer& control) {
        control.log_in();
        control.answer("MLST", "250-here\r\n type=dir; /x\r\n250 end");
        for (;;) {
            const auto listener = control.passive();
            auto data = accept_data(listener);
            control.answer("MLSD", "150 here");
            data.send("type=dir; d\r\n");
            data.close();
            control.say("226 done");
        }
    }});
    EXPECT_EQ(run_client({"--recursive", server.url("/x"), folder_.path("in")}).status,
              exit_status::weird_reply);
    EXPECT_TRUE(folder_.names().empty());
}

}  // namespace
}  // namespace zorvan::copy
