#pragma once
// The program-statement engine: compiles a typed tree, differentiates it symbolically, and runs it in lanes.
//
// Life of a model:
//   cmpinit, cmpprogram (takes the typed tree), cmprslv (binds names to data variables), cmplst... (lists), cmpder...
//   (derivative requests), cmpgen (checks and freezes the graph), then cmpspec: one specialised Program for each set of
//   wanted outputs. Programs are constant after cmpspec; a Frame holds all mutable state of an execution, so one
//   compiled model serves any number of threads.
//
// A run takes a Tile: up to `max_lanes` lanes, each an (observation, point) pair. What depends on parameters only is
// computed once per Frame::set_parameters, on data only once per BoundData, on data and parameters once per
// observation of Frame::set_range (costly functions of a variable with few values: once per value), on random effects
// only once per point, the rest per lane.

#include "host/storage/scratch_file.h"
#include "syntax/tree.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace torvale::engine {

class CMPGLOBAL; // the compiler of one model (its declaration is private to the room)
class Program;   // a specialised program: constant, shared by threads

// CMPSYM: a symbol of the model. Owned by its CMPGLOBAL; addresses are stable.
struct CMPSYM {
  std::string name; // as first spelled; of an anonymous expression its text
  int index = 0;    // position in the compiler's symbol table
  char kind = 'v';  // 'v' variable, 'm' program variable that takes part in lags, 'e' expression value, 'd' derivative
  char type = ' ';  // 'n' numeric, 'c' character, ' ' undecided
  char cls = ' ';   // 'a' set by the procedure: a parameter or random effect
  int status = 10;  // 0 a literal constant, 10 computed or read, 20 a parameter
  int dsvarno = 0;  // number of the variable in the input data set, from 1; 0 when none
  int parameter = -1;     // index among the parameters, or -1
  int random_effect = -1; // index among all random effects of the run, or -1
  int total = -1;         // index among the sums of Frame::set_totals, or -1
  bool used = false;      // read by a statement
  bool assigned = false;  // given a value by a statement
  bool array_element = false;
  bool resolved = false; // bound to a data variable, a parameter, a random effect or an assignment
  bool retained = false;
  double constant = 0.0;  // of status 0
  syntax::Position where; // first appearance
};

// CMPLIST: a list of symbols. Borrowed pointers.
struct CMPLIST {
  std::vector<CMPSYM*> s;
  int n() const { return static_cast<int>(s.size()); }
};
using cmplist = CMPLIST;

// CMPDER: the result of a derivative request. Only derivatives that are not identically zero are listed.
struct CMPDER {
  CMPLIST obj;               // objects
  CMPLIST wrt;               // variables
  CMPLIST der;               // one new symbol per non-zero derivative, by object, then by variable
  std::vector<int> objindex; // per entry of der: index into obj
  std::vector<int> wrtindex; // per entry of der: index into wrt
};

// Diagnostic: one thing that the compiler has to say. The caller turns it into a log message.
struct Diagnostic {
  enum class Severity : std::uint8_t { note, warning, error } severity = Severity::error;
  int number = 0;   // message number in the engine's group
  std::string text; // complete sentence(s): what, and what to do
  syntax::Position where;
};

struct CMPINIT {
  const syntax::SourceMap* sources = nullptr; // for messages; borrowed, must outlive the compiler
  std::uint64_t seed = 0;                     // of random functions in the program (counter based)
};

// DataVariable: one variable of the input data set, as cmprslv sees it.
struct DataVariable {
  std::string name;
  bool character = false;
  int width = 8;                // characters of a text variable
  bool special_missing = false; // some of its values are special missing values: ._, .A to .Z
};

// --- Building ----------------------------------------------------------------------------------------------------

// cmpinit: makes a compiler.
std::shared_ptr<CMPGLOBAL> cmpinit(const CMPINIT& init);
// Faults so far (undefined functions, wrong argument counts, recursion...). errflag is the count of errors.
int cmperrors(const CMPGLOBAL& gcmp);
std::vector<Diagnostic> cmpdiagnostics(CMPGLOBAL& gcmp); // hands over and clears what has gathered
// Takes the program's statements (also declarations and subprograms). Once per compiler.
int cmpprogram(CMPGLOBAL& gcmp, const syntax::Program& program);
// Declares an expression that is evaluated after the whole program (ESTIMATE, CONTRAST, PREDICT); its value symbol.
CMPSYM* cmpexpr(CMPGLOBAL& gcmp, const syntax::Expr* expression);
// The value symbol of an expression that an ExpressionSite of the program holds; null when it holds none.
CMPSYM* cmpsite(CMPGLOBAL& gcmp, const syntax::Expr* expression);
// cmprslv: binds names that the program uses and does not assign to variables of the input data set.
int cmprslv(CMPGLOBAL& gcmp, const std::vector<DataVariable>& variables);
// cmpsyms: symbol of that name (case-free), or null. cmpsymd: defines one. cmpsymg: symbol of a data variable, made if
// new.
CMPSYM* cmpsyms(CMPGLOBAL& gcmp, std::string_view name);
CMPSYM* cmpsymd(CMPGLOBAL& gcmp, std::string_view name, char kind, char type);
CMPSYM* cmpsymg(CMPGLOBAL& gcmp, std::string_view name, int dsvarno, char type);
// All named symbols in order of first appearance.
const std::vector<CMPSYM*>& cmpsymbols(const CMPGLOBAL& gcmp);
// Makes a symbol the parameter or random effect of that index: an input of the frame. Cuts a link to the data set.
void cmpparm(CMPGLOBAL& gcmp, CMPSYM* symbol, int parameter_index);
void cmpran(CMPGLOBAL& gcmp, CMPSYM* symbol, int random_effect_index);

// cmpder: differentiates every object of obj by every variable of wrt (parameters and random effects). Objects may be
// derivative symbols of earlier requests. Returns 0, or 1 with diagnostics (a function without a known derivative).
int cmpder(CMPDER& der, const CMPLIST& obj, const CMPLIST& wrt, CMPGLOBAL& gcmp);
// cmpcombine: the sum, difference, product or quotient of two symbols' values at the end of the program, of derivatives
// too, as a symbol of its own; it can be differentiated. Null for any other operator.
CMPSYM* cmpcombine(CMPGLOBAL& gcmp, syntax::Op op, const CMPSYM* a, const CMPSYM* b);
// cmpcdep: true when the first symbol depends on the second. cmpdeps: the input symbols (data variables, parameters,
// random effects, unresolved names) that a symbol depends on, in order of appearance.
bool cmpcdep(CMPGLOBAL& gcmp, const CMPSYM* symbol, const CMPSYM* on);
std::vector<CMPSYM*> cmpdeps(CMPGLOBAL& gcmp, const CMPSYM* symbol);
// cmpchck: counts undefined symbols and program faults (unused variables are notes); texts go to the diagnostics.
void cmpchck(CMPGLOBAL& gcmp, int& undefined, int& unused, int& faults);
// cmppdv: data variables that the program reads, and the lag depth (records before the current one that a run needs).
struct ProgramData {
  std::vector<CMPSYM*> variables; // data symbols in use, by dsvarno
  int nlag = 0;
};
ProgramData cmppdv(const CMPGLOBAL& gcmp);
// cmpgen: ends the building: no list, request or symbol may follow. Returns 0 or the number of errors.
int cmpgen(CMPGLOBAL& gcmp);

// Listings for people: statements, generated code of all programs, dependencies, one derivative request.
std::string cmppprg(const CMPGLOBAL& gcmp);
std::string cmppsts(const CMPGLOBAL& gcmp);
std::string cmppdep(const CMPGLOBAL& gcmp);
std::string cmppder(const CMPGLOBAL& gcmp, const CMPDER& der);
std::string cmpxref(const CMPGLOBAL& gcmp);
// cmppnam: printable text of a symbol or expression.
std::string cmppnam(const CMPSYM* symbol);

// --- Running -----------------------------------------------------------------------------------------------------

// DataView: the columns of one BY group, rows in subject order. Borrowed; constant while bound.
struct DataColumn {
  int dsvarno = 0;
  const double* numeric = nullptr;     // one per row; null for a character column
  const std::int32_t* codes = nullptr; // character column: per row an index into dictionary
  const std::vector<std::string>* dictionary = nullptr;
};
struct DataView {
  std::int64_t rows = 0;
  std::vector<DataColumn> columns; // in any order, found by dsvarno
  const std::int32_t* subject_start =
      nullptr;              // rows entries: row where the subject of a row starts (lags and RETAIN start anew there)
  host::RowMemory memory{}; // where arrays with an entry for every row are made
};

// BoundData: what a model computes from data alone, once per BY group, for all its programs. Constant afterwards.
class BoundData;
std::shared_ptr<const BoundData> cmpbind(const CMPGLOBAL& gcmp, const DataView& view);
// cmporder: the order in which Frame::set_records will go through the rows, all in all: what programs read of them is
// brought into it once, and parts of this list are read where they stand. Borrowed until the next call. Not while
// frames run.
void cmporder(const BoundData& data, const std::int32_t* rows, std::int64_t count);

// Visits: how often a program's lanes take a record. At many points: what these have in common is computed once for the
// record. Once: each lane computes it for itself, and nothing is carried about. The last digits may differ.
// Terms: as many, and its outputs are added up for a program of totals alone. Totals: lanes are points, whose sums over
// records it reads (cmptotal).
enum class Visits : std::uint8_t { many, once, terms, totals };
// cmpspec: a program that yields `outputs` (in that order; an entry may be null: identically zero). Dead code is gone.
// `beside`: a program that runs for the same records; what both compute once for a record is then computed once for
// both, where it is all that the new one needs of that kind. A frame has both programs at hand.
const Program* cmpspec(CMPGLOBAL& gcmp, std::span<CMPSYM* const> outputs, Visits visits = Visits::many,
                       const Program* beside = nullptr);
// cmpfactor: writes each output as a sum of products of a coefficient, which may vary by random effects, and a factor
// that does not: derivatives by the coefficients of a linear predictor have one coefficient in common, and factors of
// their own. After cmpgen; the symbols are new ones for cmpspec, equal values have one. A factor that is null is 1; an
// output that is null has no terms. A product whose coefficient is 0 is 0 whatever its factor is: that of a side that
// was not taken may be missing.
struct FactoredTerm {
  CMPSYM* coefficient = nullptr;
  CMPSYM* factor = nullptr;
};
std::vector<std::vector<FactoredTerm>> cmpfactor(CMPGLOBAL& gcmp, std::span<CMPSYM* const> outputs);
// cmptotal: outputs that are only wanted as sums over the records of a point. A program of the terms, added up over the
// records, is followed by one of the totals (Visits::totals), which makes the outputs' sums of them, once for each
// point: the same but for rounding. Outputs that stand in `whole` too are terms themselves. No terms: there is no such
// form.
struct TotalForms {
  std::vector<CMPSYM*> terms;
  std::vector<CMPSYM*> totals; // per output
};
TotalForms cmptotal(CMPGLOBAL& gcmp, std::span<CMPSYM* const> outputs, std::span<CMPSYM* const> whole);
// cmppredictor: of the values that records have at all points in common, the one through which alone most parameters
// act on what the programs yield: a linear predictor without its random effects, say. Frame::shift_records moves it.
// The value is a new symbol; it may be differentiated. No parameters: there is none, or values are kept from record to
// record. After cmpspec.
struct Predictor {
  CMPSYM* value = nullptr;
  std::vector<CMPSYM*> parameters;
};
Predictor cmppredictor(CMPGLOBAL& gcmp, std::span<const Program* const> programs);
// True when the program carries values from record to record that depend on more than data (RETAIN, sums, lags of
// computed values): its tiles must bring the records of a subject in order, one record a tile.
bool sequential(const Program& program);
// True when the model has a DELETE statement that some record can reach.
bool deletes_records(const CMPGLOBAL& gcmp);
// True when the model takes values from one record to the next (RETAIN, sums, lags): it asks where subjects start.
bool keeps_values(const CMPGLOBAL& gcmp);
// True when output k depends on random effects (else it is the same for all points of an observation).
bool varies_by_point(const Program& program, int output);
// Outputs that hold the same numbers, since they are the same formula, have the same number.
int distinct_output(const Program& program, int output);
// Operations of the program by stage, before and after sharing; for reports and benchmarks.
struct ProgramSize {
  int nodes_before = 0, nodes = 0, parameter = 0, data = 0, distinct = 0, observation = 0, point = 0, lane = 0,
      registers = 0;
};
ProgramSize program_size(const Program& program);
// lane_nodes: operations of a lane of a program of these outputs as the formulas stand, without making it.
int lane_nodes(CMPGLOBAL& gcmp, std::span<CMPSYM* const> outputs);

inline constexpr int max_lanes = 512; // most lanes of one tile

// Codes of Frame::run above 2: the run of the procedure ends.
namespace run_code {
inline constexpr int stopped = 3;      // STOP
inline constexpr int aborted = 4;      // ABORT
inline constexpr int subscript = 5;    // a subscript outside the bounds of its array
inline constexpr int endless_loop = 6; // the program's loops made more than `most_passes` passes
} // namespace run_code
inline constexpr int most_passes = 100000; // of all loops of a record: a program that makes more is taken to hang

// Tile: what each lane stands for.
struct Tile {
  int lanes = 0;                             // 1..max_lanes
  const std::int32_t* observation = nullptr; // per lane: row of the bound data; null: rows first, first + 1, ...
  const std::int32_t* point = nullptr;       // per lane: index into the random-effect values; null: all at point 0
  const std::int32_t* state = nullptr;       // per lane: slot of the kept values, of sequential programs; else null
  int repeat = 1;         // lanes come in groups of this many with one observation (a promise that saves fetching)
  std::int32_t first = 0; // where `observation` is null; with repeat = lanes above 1 all are at row first
  std::int32_t first_point =
      -1; // where `point` is null: points first_point, first_point + 1, ...; below 0: all at point 0
  // Where the distinct outputs go, in place of Frame::output: value i of number k to sums[k][first_sum + i], or with
  // `adds` onto what stands there.
  double* const* sums = nullptr;
  int first_sum = 0;
  bool adds = false;
};

// Fault: one program fault, found when a tile is run again by the slow path.
struct Fault {
  syntax::Position where; // statement
  std::int64_t row = 0;   // row of the bound data
  std::string text;       // what happened, with the values
};

// PutLine: one line that PUT statements wrote.
struct PutLine {
  std::string target; // LOG, PRINT, or the name of a file
  bool is_file = false;
  bool append = false; // behind what the file holds
  int most = 0;        // more characters than these are a fault (STOPOVER); 0: none are
  std::string text;
};
// True when the program has PUT statements. They write nothing in `run`; run_put executes them for one lane.
bool has_put(const CMPGLOBAL& gcmp);

// Frame: all mutable state of an execution, for one worker. Never shared.
class Frame {
public:
  Frame(const CMPGLOBAL& gcmp, std::shared_ptr<const BoundData> data);
  ~Frame();
  Frame(Frame&&) noexcept;
  Frame& operator=(Frame&&) noexcept;

  // theta: all parameters. What depends on parameters alone is computed at the first run of a program after this.
  void set_parameters(const double* theta);
  // Rows first..first+count-1 are those that the next tiles draw from; what depends on data and parameters is
  // computed for them once, at the first run of a program after this.
  void set_range(std::int64_t first, std::int64_t count);
  // The same for any rows in any order: until the next set_range, rows of a tile are places in this list. Borrowed.
  // What programs read of these rows is brought together, so that tiles of consecutive places read consecutive numbers:
  // once for all where the rows are a part of cmporder's list, else at each call.
  void set_records(const std::int32_t* rows, std::int64_t count);
  // Adds by_row[r] to the predictor of row r wherever programs read it, until called with null. Borrowed. To be
  // repeated when the numbers have changed.
  void shift_records(const CMPSYM* predictor, const double* by_row);
  bool shifts_records() const;
  // Values kept from record to record start anew in `slots` slots (sequential programs).
  void reset_state(const Program& program, int slots);

  // Random-effect values of the following runs: effect e at point p is ran[e * stride + p]. Borrowed; all `stride`
  // values of an effect may be read. What depends on random effects alone is computed once for the `points` points at
  // the first run of a program after this.
  void set_points(const double* ran, int points, int stride);
  // What programs of totals read: sum k of point p is totals[k * stride + p]. Borrowed, as the random effects are.
  void set_totals(const double* totals, long stride);

  // Runs the program over the tile. Returns 0; or a code above 2 for a fatal fault (run_code below). Allocates nothing
  // after the first call for a program. Every NaN comes out as the missing value.
  int run(const Program& program, const Tile& tile);
  // Values of output k in the last run: lanes doubles; a lane that is padding is not to be read.
  const double* output(int k) const;

  // Runs one lane by the slow path: the same kernels one node at a time, only what the outputs need. A fault is a
  // missing value that an operation made from present ones; nerror counts them, nmissgen the operations that had a
  // missing operand. Kept values are worked out from the subject's first record on; faults on that way stand behind
  // those of the row itself, and what ends the run stands first. Returns what `run` would.
  int run_checked(const Program& program, std::int64_t row, int point, std::vector<Fault>& faults, int& nerror,
                  int& nmissgen);
  // The lines that PUT statements write for one lane, in program order.
  void run_put(std::int64_t row, int point, std::vector<PutLine>& lines);

private:
  struct State;
  std::unique_ptr<State> state_;
};

// Instruction set in use: "baseline", "avx2", "avx512". Chosen at start from the processor; set_isa lowers it (tests,
// benchmarks).
const char* isa_name();
bool set_isa(std::string_view name);

} // namespace torvale::engine
