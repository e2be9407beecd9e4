// The host's own OS calls for the simulated call: a loopback UDP socket pair
// and whether a stream is a terminal. The library has no socket-creation
// interface, so the host makes its sockets and hands them to an I/O
// thread's repository.
#ifndef DEMO_CALL_NET_H
#define DEMO_CALL_NET_H

#include <stdint.h>
#include <stdio.h>

#include <string>

namespace ssb {
class msg_db_t;
}

namespace call {

// A socket as the library's io_repo_t takes it (io_handle_t).
typedef uintptr_t udp_socket_t;
const udp_socket_t UDP_INVALID = ~static_cast<udp_socket_t>(0);

// Two UDP sockets on 127.0.0.1, each connected to the other. The receiving
// one is non-blocking with a receive buffer of at least `recv_buffer`
// bytes where the system allows it; the sending one blocks. 0, or -1 with
// `error` saying which call failed and the OS error number.
int udp_open_pair(udp_socket_t& sender, udp_socket_t& receiver, int recv_buffer, std::string& error);
void udp_close(udp_socket_t& s);
// The receive buffer the system granted.
int udp_recv_buffer(udp_socket_t s);
// Bytes sent, or -1 (the OS error number in `error`).
int udp_send(udp_socket_t s, const void* data, unsigned int len, int& error);
// Sends the readable bytes of a chain as one datagram, gathered from its
// nodes' memory (msg_db_t::fill_iov) without copying: at most
// UDP_MAX_PIECES non-empty nodes. Bytes sent, or -1 (the OS error number in
// `error`, or 0 for a chain of too many pieces).
const unsigned int UDP_MAX_PIECES = 16;
int udp_send_chain(udp_socket_t s, const ssb::msg_db_t* chain, int& error);
// Bytes received; 0 when nothing is waiting; -1 on another error.
int udp_recv(udp_socket_t s, void* buf, unsigned int cap, int& error);

bool is_terminal(FILE* stream);

}  // namespace call

#endif
