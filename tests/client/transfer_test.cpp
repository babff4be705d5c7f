// What the client says and does in a transfer that goes well, breaks off, is taken up again or is
// interrupted.
#include <gtest/gtest.h>

#include "restart_file.h"
#include "scripted_server.h"
#include "temporary_folder.h"

namespace zorvan::copy {
namespace {

constexpr unsigned end_of_file = 0x40;
constexpr unsigned end_of_data = 0x08;
constexpr unsigned closes = 0x04;

/// Log-in, EPSV, ALLO and perhaps REST of an upload in extended mode over one connection; its data
/// connection.
peer begin_upload(peer& control, const std::string& announced, const std::string& restart = {},
                  const std::string& answer = "350 ok") {
    control.log_in();
    EXPECT_EQ(control.answer("MODE", "200 ok"), "E");
    const auto listener = control.passive();
    auto data = accept_data(listener);
    EXPECT_EQ(control.answer("ALLO", "200 ok"), announced);
    if (!restart.empty()) {
        EXPECT_EQ(control.answer("REST", answer), restart);
    }
    return data;
}

/// SIZE to EPRT of a download in extended mode.
endpoint begin_download(peer& control, const std::string& size, const std::string& time,
                        const std::string& streams) {
    control.log_in();
    control.answer("SIZE", "213 " + size);
    control.answer("MDTM", "213 " + time);
    EXPECT_EQ(control.answer("MODE", "200 ok"), "E");
    EXPECT_EQ(control.answer("OPTS", "200 ok"), "RETR Parallelism=" + streams + ";");
    return control.active();
}

class Transfer : public testing::Test {
  protected:
    /// Until the client has noted that these ranges are there.
    void wait_for_restart(const std::string& ranges) const {
        const auto until = clock::now() + milliseconds(20'000);
        for (;;) {
            const auto found = read_restart_file(folder_.path("x.restart"));
            if (found && found->ranges.text() == ranges) return;
            if (clock::now() >= until) {
                ADD_FAILURE() << "no restart file with " << ranges;
                return;
            }
            std::this_thread::yield();
        }
    }

    temporary_folder folder_;
};

TEST_F(Transfer, UploadsInStreamMode) {
    folder_.write("x", "content");
    scripted_server server({[](peer& control) {
        control.log_in();
        const auto listener = control.passive();
        auto data = accept_data(listener);
        EXPECT_EQ(control.answer("ALLO", "200 ok"), "7");
        EXPECT_EQ(control.answer("STOR", "150 here"), "/a b/x");
        EXPECT_EQ(data.receive_all(), "content");
        control.say("226 done");
        control.answer("QUIT", "221 bye");
    }});
    EXPECT_EQ(run_client({folder_.path("x"), server.url("/a%20b/")}).status, exit_status::ok);
    server.join();
    EXPECT_EQ(server.finished(), 1U);
}

TEST_F(Transfer, FallsBackToPasv) {
    folder_.write("x", "content");
    scripted_server server({[](peer& control) {
        control.log_in();
        control.answer("EPSV", "500 what");
        const auto listener = listen_on_loopback();
        const auto port = local_endpoint(listener.fd()).port();
        // The address is wrong, as behind a translator of addresses; only the port counts.
        control.answer("PASV", "227 ok (10,1,2,3," + std::to_string(port / 256) + "," +
                                   std::to_string(port % 256) + ")");
        auto data = accept_data(listener);
        control.answer("ALLO", "202 no need");
        control.answer("STOR", "125 here");
        EXPECT_EQ(data.receive_all(), "content");
        control.say("226 done");
    }});
    EXPECT_EQ(run_client({folder_.path("x"), server.url("/x")}).status, exit_status::ok);
}

TEST_F(Transfer, UploadsOverAnActiveConnection) {
    folder_.write("x", "content");
    scripted_server server({[](peer& control) {
        control.log_in();
        const auto client = control.active();
        control.answer("ALLO", "200 ok");
        control.expect("STOR");
        // Before the preliminary reply: the data must come once all the same.
        auto data = connect_data(client);
        control.say("150 here");
        EXPECT_EQ(data.receive_all(), "content");
        control.say("226 done");
    }});
    EXPECT_EQ(run_client({"--active", folder_.path("x"), server.url("/x")}).status, exit_status::ok);
}

TEST_F(Transfer, UploadsBlocks) {
    folder_.write("x", std::string(5000, 'a') + "b");
    scripted_server server({[](peer& control) {
        auto data = begin_upload(control, "5001");
        control.answer("STOR", "150 here");
        EXPECT_EQ(data.receive_all(), block(0, 0, std::string(4096, 'a')) +
                                          block(0, 4096, std::string(904, 'a') + "b") +
                                          block(end_of_file | end_of_data | closes, 1));
        control.say("226 done");
        EXPECT_EQ(control.answer("CKSM", "113 2000\r\n213 D05CE8A4E7ACCC8F5FCB5C77E6B9C26F"), "MD5 0 -1 /x");
    }});
    const auto result =
        run_client({"--mode", "extended", "--block-size", "4096", folder_.path("x"), server.url("/x")});
    // The sum is not that of the content: it has been compared.
    EXPECT_EQ(result.status, exit_status::checksum_mismatch);
    EXPECT_NE(result.messages.find("d05ce8a4e7accc8f5fcb5c77e6b9c26f"), std::string::npos) << result.messages;
}

TEST_F(Transfer, AnnouncesEveryConnectionsEnd) {
    folder_.write("x", "content");
    scripted_server server({[](peer& control) {
        control.log_in();
        control.answer("MODE", "200 ok");
        const auto listener = control.passive();
        std::vector<peer> data;
        for (int i = 0; i < 3; ++i) {
            data.push_back(accept_data(listener));
        }
        control.answer("ALLO", "200 ok");
        control.answer("STOR", "150 here");
        std::string all;
        for (auto& each : data) {
            all += each.receive_all();
        }
        EXPECT_NE(all.find(block(0, 0, "content")), std::string::npos);
        EXPECT_NE(all.find(block(end_of_file | end_of_data | closes, 3)), std::string::npos);
        EXPECT_EQ(all.size(), 4 * 17U + 7);
        control.say("226 done");
    }});
    EXPECT_EQ(
        run_client({"--parallel", "3", "--checksum", "none", folder_.path("x"), server.url("/x")}).status,
        exit_status::ok);
}

TEST_F(Transfer, GoesOnWithAnUploadWhereTheMarkersEnd) {
    folder_.write("x", std::string(100, 'a') + std::string(100, 'b'));
    {
        scripted_server server({[](peer& control) {
            auto data = begin_upload(control, "200");
            control.answer("STOR", "150 here");
            control.say("111 Range Marker 0-50");
            control.say("112-Perf Marker\r\n Timestamp: 1\r\n112 End");
            control.say("111 Range Marker 0-100");
            control.say("111 Range Marker 0-200");  // only the commit is missing: nothing to begin from
            control.say("426 broken");
        }});
        const auto result = run_client({"--mode", "extended", folder_.path("x"), server.url("/x")});
        EXPECT_EQ(result.status, exit_status::upload_refused);
    }
    const auto left = read_restart_file(folder_.path("x.restart"));
    ASSERT_TRUE(left);
    EXPECT_EQ(left->ranges.text(), "0-100");
    // Another server, so another address: that one cannot go on.
    scripted_server server({[&](peer& control) {
                                auto data = begin_upload(control, "200");
                                control.answer("STOR", "150 here");
                                control.say("111 Range Marker 0-60");
                                wait_for_restart("0-60");
                                control.reset();
                            },
                            [](peer& control) {
                                auto data = begin_upload(control, "140", "0-60");
                                control.answer("STOR", "150 here");
                                EXPECT_EQ(data.receive_all(),
                                          block(0, 60, std::string(40, 'a') + std::string(100, 'b')) +
                                              block(end_of_file | end_of_data | closes, 1));
                                control.say("226 done");
                            }});
    // The retry knows the markers without being told to resume.
    const auto result = run_client({"--mode", "extended", "--retry", "1", "--retry-pause", "0", "--checksum",
                                    "none", folder_.path("x"), server.url("/x")});
    EXPECT_EQ(result.status, exit_status::ok) << result.messages;
    EXPECT_FALSE(folder_.has("x.restart"));
}

TEST_F(Transfer, ResumesAnUploadOfAnEarlierRun) {
    folder_.write("x", "0123456789");
    scripted_server server({[](peer& control) {
                                auto data = begin_upload(control, "10");
                                control.answer("STOR", "150 here");
                                control.say("111 Range Marker 0-4");
                                control.say("426 broken");
                            },
                            [](peer& control) {
                                auto data = begin_upload(control, "6", "0-4");
                                control.answer("STOR", "150 here");
                                EXPECT_EQ(
                                    data.receive_all(),
                                    block(0, 4, "456789") + block(end_of_file | end_of_data | closes, 1));
                                control.say("226 done");
                                // The sum of the whole file, what was sent by the earlier run included.
                                control.answer("CKSM", "213 781e5e245d69b566979b86e28d23f2c7");
                            }});
    EXPECT_EQ(run_client({"--mode", "extended", folder_.path("x"), server.url("/x")}).status,
              exit_status::upload_refused);
    // In stream mode there is no restart: it goes on in extended mode all the same.
    const auto result = run_client({"--resume", folder_.path("x"), server.url("/x")});
    EXPECT_EQ(result.status, exit_status::ok) << result.messages;
    EXPECT_EQ(folder_.names(), std::vector<std::string>{"x"});
}

TEST_F(Transfer, BeginsAnUploadAnewThatTheServerHasForgotten) {
    folder_.write("x", "0123456789");
    const scripted_server::script broken = [](peer& control) {
        auto data = begin_upload(control, "10");
        control.answer("STOR", "150 here");
        control.say("111 Range Marker 0-4");
        control.say("426 broken");
    };
    const auto forgotten = [](const std::string& before, const std::string& reply) {
        return [before, reply](peer& control) {
            auto data = begin_upload(control, "6", "0-4");
            control.expect("STOR");
            if (!before.empty()) control.say(before);
            control.say(reply);
            // In the same session.
            const auto listener = control.passive();
            auto again = accept_data(listener);
            EXPECT_EQ(control.answer("ALLO", "200 ok"), "10");
            control.answer("STOR", "150 here");
            EXPECT_EQ(again.receive_all(),
                      block(0, 0, "0123456789") + block(end_of_file | end_of_data | closes, 1));
            control.say("226 done");
        };
    };
    scripted_server server({broken, forgotten("", "553 no"), broken,
                            forgotten("150 here", "553-MULTI_PART_UPLOAD_NOT_FOUND\r\n553 gone")});
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(run_client({"--mode", "extended", folder_.path("x"), server.url("/x")}).status,
                  exit_status::upload_refused);
        const auto result = run_client(
            {"--mode", "extended", "--resume", "--checksum", "none", folder_.path("x"), server.url("/x")});
        EXPECT_EQ(result.status, exit_status::ok) << result.messages;
        EXPECT_EQ(folder_.names(), std::vector<std::string>{"x"});
    }
}

TEST_F(Transfer, BeginsAnUploadAnewWhoseSourceChanged) {
    folder_.write("x", "0123456789");
    scripted_server server({[](peer& control) {
                                auto data = begin_upload(control, "10");
                                control.answer("STOR", "150 here");
                                control.say("111 Range Marker 0-4");
                                control.say("426 broken");
                            },
                            [](peer& control) {
                                auto data = begin_upload(control, "11");
                                control.answer("STOR", "150 here");
                                data.receive_all();
                                control.say("226 done");
                            }});
    EXPECT_EQ(run_client({"--mode", "extended", folder_.path("x"), server.url("/x")}).status,
              exit_status::upload_refused);
    folder_.write("x", "0123456789a");
    EXPECT_EQ(run_client({"--mode", "extended", "--resume", "--checksum", "none", folder_.path("x"),
                          server.url("/x")})
                  .status,
              exit_status::ok);
}

TEST_F(Transfer, DownloadsBlocksInAnyOrder) {
    scripted_server server({[](peer& control) {
        const auto client = begin_download(control, "10", "1", "2,2,2");
        control.expect("RETR");
        // Before the preliminary reply.
        auto first = connect_data(client);
        auto second = connect_data(client);
        second.send(block(0, 5, "567") + block(0, 8, "89") + block(end_of_data, 0));
        control.say("150 here");
        first.send(block(0, 0, "01234") + block(end_of_file | end_of_data, 2));
        control.say("226 done");
        control.answer("CKSM", "213 781E5E245D69B566979B86E28D23F2C7");
    }});
    const auto result = run_client({"--parallel", "2", server.url("/x"), folder_.path()});
    EXPECT_EQ(result.status, exit_status::ok) << result.messages;
    EXPECT_EQ(folder_.read("x"), "0123456789");
    EXPECT_EQ(folder_.names(), std::vector<std::string>{"x"});
}

TEST_F(Transfer, GoesOnWithADownload) {
    const auto broken = [&](peer& control) {
        const auto client = begin_download(control, "10", "1", "1,1,1");
        control.answer("RETR", "150 here");
        auto data = connect_data(client);
        data.send(block(0, 6, "67") + block(0, 0, "0123"));
        wait_for_restart("0-4,6-8");
        control.say("426 broken");
    };
    scripted_server server({broken, [](peer& control) {
                                const auto client = begin_download(control, "10", "1", "1,1,1");
                                EXPECT_EQ(control.answer("REST", "350 ok"), "0-4,6-8");
                                control.answer("RETR", "150 here");
                                auto data = connect_data(client);
                                data.send(block(0, 4, "45") + block(0, 8, "89") +
                                          block(end_of_file | end_of_data, 1));
                                control.say("226 done");
                            }});
    const std::vector<std::string> command{"--mode", "extended",       "--resume",       "--checksum",
                                           "none",   server.url("/x"), folder_.path("x")};
    EXPECT_EQ(run_client(command).status, exit_status::download_refused);
    EXPECT_EQ(folder_.names(), (std::vector<std::string>{"x.part", "x.restart"}));
    const auto result = run_client(command);
    EXPECT_EQ(result.status, exit_status::ok) << result.messages;
    EXPECT_EQ(folder_.read("x"), "0123456789");
    EXPECT_EQ(folder_.names(), std::vector<std::string>{"x"});
}

TEST_F(Transfer, GoesOnWithADownloadInStreamMode) {
    const auto begin = [](peer& control) {
        control.log_in();
        control.answer("SIZE", "213 10");
        control.answer("MDTM", "213 1");
        const auto listener = control.passive();
        return accept_data(listener);
    };
    scripted_server server({[&](peer& control) {
                                auto data = begin(control);
                                control.answer("RETR", "150 here");
                                data.send("0123");
                                wait_for_restart("0-4");
                                control.say("426 broken");
                            },
                            [&](peer& control) {
                                auto data = begin(control);
                                EXPECT_EQ(control.answer("REST", "350 ok"), "4");
                                control.answer("RETR", "150 here");
                                data.send("456789");
                                data.close();
                                control.say("226 done");
                            }});
    const auto result =
        run_client({"--retry", "1", "--retry-pause", "0", server.url("/x"), folder_.path("x")});
    EXPECT_EQ(result.status, exit_status::ok) << result.messages;
    EXPECT_EQ(folder_.read("x"), "0123456789");
}

TEST_F(Transfer, BeginsADownloadAnewWhoseSourceChanged) {
    const auto answer = [this](const std::string& time, const std::string& bytes, bool good) {
        return [=, this](peer& control) {
            const auto client = begin_download(control, "10", time, "1,1,1");
            control.answer("RETR", "150 here");
            auto data = connect_data(client);
            data.send(block(0, 0, bytes) + (good ? block(end_of_file | end_of_data, 1) : ""));
            if (!good) wait_for_restart("0-8");
            control.say(good ? "226 done" : "426 broken");
        };
    };
    scripted_server server({answer("1", "aaaaaaaa", false), answer("2", "bbbbbbbbbb", true)});
    const std::vector<std::string> command{"--mode", "extended",       "--resume",       "--checksum",
                                           "none",   server.url("/x"), folder_.path("x")};
    EXPECT_EQ(run_client(command).status, exit_status::download_refused);
    EXPECT_EQ(run_client(command).status, exit_status::ok);
    EXPECT_EQ(folder_.read("x"), "bbbbbbbbbb");
}

TEST_F(Transfer, EndsWhenInterruptedAndKeepsTheRestartFile) {
    const flag interrupt;
    scripted_server server({[&](peer& control) {
        auto data = begin_upload(control, "1000");
        control.answer("STOR", "150 here");
        control.say("111 Range Marker 0-500");
        wait_for_restart("0-500");
        interrupt.raise();
        control.receive_all();
    }});
    folder_.write("x", std::string(1000, 'x'));
    const auto result =
        run_client({"--mode", "extended", "--retry", "5", folder_.path("x"), server.url("/x")}, &interrupt);
    EXPECT_EQ(result.status, exit_status::interrupted);
    EXPECT_TRUE(folder_.has("x.restart"));
    server.join();
    EXPECT_EQ(server.finished(), 1U);
}

TEST_F(Transfer, ResetsWhatItDoesNotFinish) {
    // Without an announced size, the end of the connection would be the end of the file.
    folder_.write("x", std::string(64U << 20U, 'x'));
    scripted_server server({[&](peer& control) {
        control.log_in();
        const auto listener = control.passive();
        auto data = accept_data(listener);
        control.answer("ALLO", "200 ok");
        control.answer("STOR", "150 here");
        data.receive(1000);
        folder_.write("x", "shorter");
        data.receive_all();
        EXPECT_TRUE(data.was_reset());
    }});
    EXPECT_EQ(run_client({folder_.path("x"), server.url("/x")}).status, exit_status::read_failed);
}

TEST_F(Transfer, VerifiesInStreamModeWhenAsked) {
    folder_.write("x", "0123456789");
    const auto server_with = [](const std::string& sum) {
        return [sum](peer& control) {
            control.log_in();
            const auto listener = control.passive();
            auto data = accept_data(listener);
            control.answer("ALLO", "200 ok");
            control.answer("STOR", "150 here");
            data.receive_all();
            control.say("226 done");
            control.answer("CKSM", sum);
        };
    };
    scripted_server server({server_with("213 781e5e245d69b566979b86e28d23f2c7"), server_with("500 what")});
    const std::vector<std::string> command{"--checksum", "md5", folder_.path("x"), server.url("/x")};
    EXPECT_EQ(run_client(command).status, exit_status::ok);
    // Asked for, it has to be done.
    EXPECT_EQ(run_client(command).status, exit_status::command_refused);
}

TEST_F(Transfer, GoesOnWithTheOtherFiles) {
    folder_.write("a", "1");
    folder_.write("b", "2");
    const auto take = [](peer& control, const std::string& path, bool good) {
        const auto listener = control.passive();
        auto data = accept_data(listener);
        control.answer("ALLO", "200 ok");
        EXPECT_EQ(control.answer("STOR", good ? "150 here" : "553 no"), path);
        if (!good) return;
        data.receive_all();
        control.say("226 done");
    };
    scripted_server server({[&](peer& control) {
                                control.log_in();
                                take(control, "/d/a", false);
                                control.receive_all();
                            },
                            [&](peer& control) {
                                control.log_in();
                                take(control, "/d/b", true);
                                control.answer("QUIT", "221 bye");
                            }});
    EXPECT_EQ(run_client({folder_.path("a"), folder_.path("b"), server.url("/d/")}).status,
              exit_status::upload_refused);
    server.join();
    EXPECT_EQ(server.finished(), 2U);
}

TEST_F(Transfer, TriesNoMoreAfterARefusedLogIn) {
    folder_.write("a", "1");
    folder_.write("b", "2");
    scripted_server server({[&](peer& control) {
        control.say("220 ready");
        control.answer("USER", "331 password");
        control.answer("PASS", "530 no");
        control.receive_all();
    }});
    const auto result =
        run_client({"--verbose", "--retry", "3", folder_.path("a"), folder_.path("b"), server.url("/d/")});
    EXPECT_EQ(result.status, exit_status::login_denied);
    EXPECT_NE(result.messages.find("> PASS ****"), std::string::npos) << result.messages;
}

}  // namespace
}  // namespace zorvan::copy
