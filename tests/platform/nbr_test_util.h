// Helpers of the neighbour tests: datagrams sealed as a given sender, sent from its address.
#pragma once
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "nbr_endpoint.h"

inline uint32_t ip4(const char *s) { return inet_addr(s); }

// A datagram as the endpoint at sender would seal it.
inline std::vector<uint8_t> nbr_sealed(uint16_t module, const std::vector<uint8_t> &payload,
                                       const char *key, uint32_t sender = 0, uint64_t epoch = 1,
                                       uint64_t counter = 1)
{
    std::vector<uint8_t> d;
    EXPECT_TRUE(nbr_seal(module, payload.data(), payload.size(), key, {sender, epoch, counter}, d));
    return d;
}

// Sends raw bytes from src (any loopback address: bound first) to dst:port.
inline void nbr_send_raw(uint32_t src, uint32_t dst, uint16_t port, const std::vector<uint8_t> &b)
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = src;
    ASSERT_EQ(bind(fd, (sockaddr *)&a, sizeof a), 0);
    a.sin_port = htons(port);
    a.sin_addr.s_addr = dst;
    EXPECT_EQ(sendto(fd, b.data(), b.size(), 0, (sockaddr *)&a, sizeof a), (ssize_t)b.size());
    close(fd);
}

// An endpoint bound at ip:port (0: any free port).
inline nbr_endpoint_ptr nbr_open_at(uint32_t ip, uint16_t port, const char *key = "",
                                    std::vector<uint32_t> peers = {}, const std::string &windows = "")
{
    std::string err;
    nbr_params p;
    p.bind_ip = ip;
    p.port = port;
    p.key = key;
    p.peers = std::move(peers);
    p.windows_file = windows;
    auto ep = nbr_endpoint_open(p, err);
    EXPECT_TRUE(ep) << err;
    return ep;
}
