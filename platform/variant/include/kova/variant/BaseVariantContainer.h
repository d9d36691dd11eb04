#pragma once

#include "kova/variant/Variant.h"

namespace kova::variant {

/// A Variant with a schema: the message object is itself the map of its fields.
class BaseVariantContainer : public Variant {
 public:
  BaseVariantContainer() { IsArray(false); }  // becomes an empty map
  explicit BaseVariantContainer(const Variant& content) : Variant(content) {}
  BaseVariantContainer(const BaseVariantContainer&) = default;
  BaseVariantContainer& operator=(const BaseVariantContainer&) = default;
  virtual ~BaseVariantContainer() = default;

  /// Repairs the value in place so that every key of the schema has a value of the right type.
  /// Never fails; idempotent.
  virtual void NormalizeFields() {
    if (!isContainer()) {
      IsArray(false);  // replaces the value by an empty map
    }
  }
};

}  // namespace kova::variant
