#pragma once

namespace kova::ctlserver {

/// Client certificate and private key of the camera, PEM, in one file.
inline constexpr char kClientCertFile[] = "/etc/persistent/server.pem";

/// Certificate of the management server that adopted the camera, PEM. It is trusted as a
/// certificate authority, and pinned: a server whose chain does not validate must present this
/// certificate.
inline constexpr char kControllerCertFile[] = "/etc/persistent/controller.crt";

}  // namespace kova::ctlserver
