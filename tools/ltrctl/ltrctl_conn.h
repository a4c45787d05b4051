// ltrctl's side of cli.sock: finding the socket of an instance, and one request/reply
// exchange per frame.
#pragma once
#include <stdint.h>

#include <string>
#include <vector>

namespace ltrctl {

// The socket path: --socket wins; then --instance (/run/qz/<instance>/cli.sock, or
// $XDG_RUNTIME_DIR/qz/<instance> for a user other than root, as the runtime does); then
// runtime_dir or instance from the platform configuration ($QZ_PLATFORM_CONFIG, else
// /etc/qz/platform.toml; a missing file means the defaults). False with err on a
// configuration that cannot be read.
bool socket_path(const std::string &opt_socket, const std::string &opt_instance,
                 std::string &path, std::string &err);

constexpr int DEFAULT_TIMEOUT_MS = 10000;

struct conn {
    int fd = -1;
    int timeout_ms = DEFAULT_TIMEOUT_MS; // bounds the connect, and each exchange as a whole
    ~conn();
    bool open(const std::string &path, std::string &err);
    // Sends one request body and reads the reply body; false with err on a broken
    // link or when the timeout runs out.
    bool exchange(const std::vector<uint8_t> &body, std::vector<uint8_t> &reply, std::string &err);
    std::string timeout_text() const; // "2.5 s"
};

} // namespace ltrctl
