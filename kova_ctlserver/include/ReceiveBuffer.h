#pragma once

namespace kova::ctlserver {

/// Size of a socket's receive buffer. The engine reads once per pass, at most every 10 ms, and at
/// 1 Gbit/s 1.2 MB arrive in between. A fixed size disables the kernel's autotuning, so it is no
/// smaller than the autotuning maximum (tcp_rmem, tcp(7)). The kernel uses half of it for
/// bookkeeping.
inline constexpr int kReceiveBufferSize = 8 * 1024 * 1024;

/// Sets the receive buffer of an unconnected TCP socket to kReceiveBufferSize. Best effort: without
/// CAP_NET_ADMIN the kernel's autotuning stays, because SO_RCVBUF would disable it and is capped at
/// rmem_max, often 208 KiB.
void widenReceiveBuffer(int fd);

}  // namespace kova::ctlserver
