#include "kova/variant/BaseVariantContainer.h"

namespace kova::variant {

void BaseVariantContainer::ensureMap() {  // kept: 27
  if (!isContainer()) {
    Free();
    IsArray(false);
  }
}

}  // namespace kova::variant
