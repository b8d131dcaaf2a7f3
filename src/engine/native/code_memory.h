#pragma once
// Memory for machine code: written through one view and executed through another, so that no page is ever both and the
// system is asked once for many stages. Where it refuses such a pair of views, code gets pages of its own that become
// executable when it is in them.

#include <cstdint>
#include <memory>
#include <span>

namespace torvale::engine {

// Code in its place; the memory lives as long as one of these that stand in it.
class PlacedCode {
public:
  PlacedCode() = default; // none
  PlacedCode(std::shared_ptr<const void> memory, const std::uint8_t* entry) : memory_(std::move(memory)), entry_(entry)
  {
  }
  const std::uint8_t* entry() const { return entry_; } // on a 64-byte boundary; null: the system has granted none

private:
  std::shared_ptr<const void> memory_;
  const std::uint8_t* entry_ = nullptr;
};

// Copies code that does not depend on where it stands. For any thread.
PlacedCode place_code(std::span<const std::uint8_t> code);

} // namespace torvale::engine
