#pragma once

namespace kova::ctlserver {

/// Bytes that a socket may hold unread. The engine reads once per pass, at most every 10 ms, and at
/// 1 Gbit/s 1.2 MB arrive in between. The size replaces the kernel's tuning and is no smaller than
/// its maximum (tcp_rmem, tcp(7)). It includes overhead; half of it is data.
inline constexpr int kReceiveBufferSize = 8 * 1024 * 1024;

/// Sets the receive buffer of an unconnected TCP socket to kReceiveBufferSize. Without
/// CAP_NET_ADMIN it leaves the kernel's tuning in place: SO_RCVBUF would end that and be capped at
/// rmem_max, often 208 KiB.
void widenReceiveBuffer(int fd);

}  // namespace kova::ctlserver
