/* SPDX-License-Identifier: Apache-2.0 */
/* A board in the test's own process, with a socket of its own. */
#pragma once

#include "platform/dolm_ric/dolm_ric.h"
#include "platform/dolm_ric/simulator/control_protocol.h"
#include "util/local_socket.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

constexpr uint32_t id_of(uint32_t port)
{
    return 0x00020000 | port;
}

class board_fixture : public testing::Test
{
  protected:
    board_fixture()
    {
        std::string pattern = testing::TempDir() + "board.XXXXXX";
        folder = mkdtemp(pattern.data());
        socket_path = folder + "/made/board.sock";
        setenv(DOLM_RIC_BOARD_SOCKET_ENV, socket_path.c_str(), 1);
        unsetenv(DOLM_RIC_BOARD_FILE_ENV);
    }

    ~board_fixture() override
    {
        if (handle != 0)
            dolm_ric_shutdown(handle, 0);
        std::filesystem::remove_all(folder);
        unsetenv(DOLM_RIC_BOARD_FILE_ENV);
    }

    std::string write_file(const std::string &name, const std::string &text)
    {
        std::ofstream(folder + "/" + name) << text;
        return folder + "/" + name;
    }

    int32_t start(const std::string &board_file = {})
    {
        if (!board_file.empty())
            setenv(DOLM_RIC_BOARD_FILE_ENV, write_file("board", board_file).c_str(), 1);
        return dolm_ric_init(&handle, 0);
    }

    /* A socket connected to the board; -1 on failure. */
    int peer_of_board() const
    {
        return util::connect_to(socket_path, SOCK_SEQPACKET).release();
    }

    static std::string receive(int peer)
    {
        char answer[DOLM_RIC_BOARD_PACKET_MAX];
        const ssize_t length = recv(peer, answer, sizeof(answer), 0);
        return std::string(answer, length > 0 ? static_cast<size_t>(length) : 0);
    }

    std::string ask(const std::string &request) const
    {
        const int peer = peer_of_board();
        send(peer, request.data(), request.size(), MSG_NOSIGNAL);
        const std::string answer = receive(peer);
        close(peer);
        return answer;
    }

    std::string folder;
    std::string socket_path;
    uintptr_t handle = 0;
};
