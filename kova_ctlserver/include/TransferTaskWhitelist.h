#pragma once

#include <string>

#include "BaseTransferTask.h"

namespace kova::ctlserver {

/// Uploads a file that another process of the camera has written. Its path must consist of a fixed
/// prefix, any number of decimal digits and a fixed suffix, so that no request can make the camera
/// send an arbitrary file. The file is not removed.
class TransferTaskWhitelist : public BaseTransferTask {
 public:
  TransferTaskWhitelist();

  TransferTaskWhitelist& setPrefix(const std::string& prefix);
  TransferTaskWhitelist& setSuffix(const std::string& suffix);
  /// @param waitRename upload a copy (the path with ".out" appended) instead of the file itself
  void setWaitRename(bool waitRename);

  /// Whether `path` is allowed; with neither prefix nor suffix every path is.
  bool validate(const std::string& path) const;

  bool onCheck() override;
  bool onStart() override;
  void onPrepare(bool& ready, std::string& path) override;
  void onSuccess(bool& done) override;
  void onFailure(TransferStatus status, int httpCode) override;

 private:
  std::string prefix_;
  std::size_t prefixLength_ = 0;  // kept: 120
  std::string suffix_;
  bool waitRename_ = false;
};

}  // namespace kova::ctlserver
