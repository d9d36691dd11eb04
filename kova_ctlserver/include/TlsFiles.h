#pragma once

namespace kova::ctlserver {

/// The certificate and private key, both PEM in one file, by which the camera identifies itself.
inline constexpr char kClientCertFile[] = "/etc/persistent/server.pem";

/// The certificate of the management server that adopted the camera, PEM: trusted as a certificate
/// authority and, where a chain does not validate, as the very certificate the server must show.
inline constexpr char kControllerCertFile[] = "/etc/persistent/controller.crt";

}  // namespace kova::ctlserver
