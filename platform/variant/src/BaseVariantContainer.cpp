#include "kova/variant/BaseVariantContainer.h"

namespace kova::variant {

void BaseVariantContainer::EnsureMap() {  // kept: 27
  if (!IsContainer()) {
    Free();
    IsArray(false);
  }
}

}  // namespace kova::variant
