// Internals of the CLI agent: the registry of commands and the generator, request
// handling (one request body in, one reply body out) and the socket server.
#pragma once
#include <stdint.h>

#include <span>
#include <string>
#include <vector>

#include "qz_cli.h"

// The first vector registered under cmd_id, or null.
qz_cli_cmd_fn cli_find_cmd(int cmd_id);
// Runs the registered generator; result -1 when there is none.
int cli_run_generator(std::vector<std::pair<uint16_t, std::vector<uint8_t>>> &out);

// Handles one request body and returns the reply body. Runs handlers on the calling
// thread; the caller makes sure only one request is handled at a time.
std::vector<uint8_t> cli_handle_request(std::span<const uint8_t> body);

// Socket server: binds path (mode 0600) and serves on a new thread until rt_stopping()
// or cli_server_stop(). Negative when the socket cannot be set up.
int cli_server_start(const std::string &path, pthread_t *thread);
void cli_server_stop(); // tests: asks the server thread to end and joins it
// Tests: other limits than the default (32 clients, idle 30 s, stall 5 s, rest 250 ms);
// before cli_server_start.
struct rt_sock_limits;
void cli_server_set_limits(const rt_sock_limits &l);

// Tests: forget every registration and initialiser.
void cli_registry_reset();
