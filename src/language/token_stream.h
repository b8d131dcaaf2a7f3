#pragma once
// The token stream: the texts that are still to be read, innermost first. Statements push generated lines in front of
// what is left; macros and included files do the same.

#include "language/diagnostics.h"
#include "language/macros.h"
#include "syntax/source.h"

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace torvale::language {

// Reads a file for INCLUDE: the path as typed, and the file that includes it. The host's business; nothing when it
// cannot be read.
using FileReader = std::function<std::optional<std::string>(const std::string& path, const std::string& including)>;

// A place in the texts: one frame per text, the one being read last.
struct Frame {
  std::int32_t source = 0;
  std::size_t at = 0;
};
using Cursor = std::vector<Frame>;

class TokenStream {
public:
  TokenStream(syntax::SourceMap& sources, Diagnostics*& diagnostics, FileReader reader)
      : sources_(sources), diagnostics_(diagnostics), reader_(std::move(reader))
  {
  }

  syntax::SourceMap& sources() const { return sources_; }
  Cursor& cursor() { return cursor_; }
  std::string_view text(const Cursor& c) const { return sources_.source(c.back().source).text; }
  // The position of a frame; remembers the last one, so that reading on costs only the characters between.
  syntax::Position position(const Frame& f) const;

  // Reads a text before all that is left.
  bool push(std::int32_t source, syntax::Position where);
  // What stands next, behind blanks, comments and texts read to their ends.
  enum class Next { token, end, macro };
  // Moves the stream to its next token: defines and calls macros on the way. False at the end of everything.
  bool seek();
  // The same for a copy of the cursor, without any effect: stops at a macro.
  Next seek_copy(Cursor& cursor) const;
  // Includes a file.
  void include(const std::string& path, syntax::Position where);

  // The statement that generated text belongs to, while its action runs.
  void set_generator(std::string_view statement, syntax::Position where);

private:
  friend int xtanch(TokenStream&);
  friend int xttpshx(TokenStream&);
  friend int xttpshb(TokenStream&, std::string_view);
  bool macro();
  void define_macro(std::size_t at);
  void call_macro(const Macro& macro, std::size_t at);
  void open_loop(std::size_t at);
  void include_word(std::size_t at);
  void fault(std::int32_t source, std::size_t at, std::string text);
  Next skip(Cursor& cursor, std::size_t* unclosed) const;

  syntax::SourceMap& sources_;
  Diagnostics*& diagnostics_;
  FileReader reader_;
  Cursor cursor_;
  std::map<std::string, Macro> macros_; // by upper-case name
  std::size_t budget_ = largest_expansion;
  std::string generator_;
  syntax::Position generator_at_;
  bool anchored_ = false;
  mutable Frame last_at_{-1, 0}; // of position(): the place asked for last, and its position
  mutable syntax::Position last_position_;
  std::int32_t pushed_ = -1; // the text that xttpshb appends to
};

// xtanch: anchors the stream: what is pushed next goes in front of what is left. (x host, t token stream, anch anchor.)
// Returns 0, or 1 outside the action of a statement.
int xtanch(TokenStream& stream);
// xttpshx: opens a block of generated lines at the anchor. Returns 0; non-zero without an anchor or when texts are
// nested too deeply, and then nothing may be pushed.
int xttpshx(TokenStream& stream);
// xttpshb: adds one source line to the open block; lines are read in the order of the calls. Returns 0, or 1 without a
// block.
int xttpshb(TokenStream& stream, std::string_view line);

} // namespace torvale::language
