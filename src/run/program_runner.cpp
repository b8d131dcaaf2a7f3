#include "run/program_runner.h"

#include "compartment/compartment_statement.h"
#include "host/messages/names/fit.h"
#include "host/messages/names/methods.h"
#include "host/messages/names/statements.h"
#include "host/messages/source_excerpt.h"
#include "host/storage/run_output.h"
#include "host/storage/sha256.h"
#include "language/actions.h"
#include "language/parser.h"
#include "language/statement_listing.h"
#include "run/driver.h"
#include "run/exit_codes.h"
#include "run/statements/advice.h"
#include "run/statements/model_generator.h"
#include "run/statements/statement_processing.h"
#include "syntax/statement_names.h"

#include <algorithm>
#include <filesystem>
#include <new>

namespace torvale::run {

using syntax::model_slot;
using syntax::PROCSTR;
using syntax::STMT;
using syntax::torvale_flag;
using syntax::torvale_slot;

namespace {

// Whether PUT statements of the program so far go to the log.
bool writes_log(const syntax::Program& program)
{
  return std::any_of(program.statements.begin(), program.statements.end(), [](const syntax::Statement* s) {
    if (s->kind != syntax::StatementKind::file) return false;
    const auto& file = *static_cast<const syntax::FileStatement*>(s);
    return !file.is_name && syntax::same_name(file.target, "LOG");
  });
}

// One program: the parser with its callbacks, and what they find out about the step being read.
class ProgramRunner {
public:
  ProgramRunner(host::Host& host, const ProgramRequest& request)
      : host_(host), request_(request), program_(sources_.add(request.name, request.text)), parser_(parse_request())
  {
    host.log().set_program(request.name, request.text);
  }

  ProgramResult run()
  {
    ProgramResult result;
    int steps = 0;
    for (;; ++steps) {
      host_.stages().enter(host::Stage::parse);
      begin_reading();
      language::ParseResult parsed;
      try {
        parsed = parser_.parse_step();
      } catch (const std::bad_alloc&) {
        result.exit_code = worse_exit(result.exit_code, out_of_memory());
        break; // the parser stands in the middle of a step
      }
      if (!parsed.found && parsed.diagnostics.empty()) break;
      ensure_step();
      report(parsed.diagnostics);
      if (request_.check_only && parsed.found)
        result.statements.push_back(language::statement_listing(sources_, parsed.proc) +
                                    language::program_listing(parsed.proc.program));
      host_.stages().enter(host::Stage::compile);
      StepOutcome outcome = parsed.found ? finish(parsed) : StepOutcome{3000, exit_program};
      if (host_.interrupted()) {
        host_.log().xpmlog(message::interrupted);
        outcome.exit_code = exit_interrupted;
      }
      host_.stages().enter(host::Stage::report);
      host_.end_step(outcome.return_code, outcome.exit_code != exit_clean && outcome.exit_code != exit_no_covariance);
      // What could not be written when the step closed its files.
      if (const int closed = host_.results().steps.back().return_code; closed != outcome.return_code)
        outcome.exit_code = worse_exit(outcome.exit_code, closed == 1016 ? exit_internal : exit_program);
      result.exit_code = worse_exit(result.exit_code, outcome.exit_code);
      if (!parsed.found || host_.interrupted()) break;
    }
    if (steps == 0 && result.exit_code == exit_clean) result.exit_code = empty_program();
    return result;
  }

private:
  language::ParseRequest parse_request()
  {
    language::ParseRequest r;
    r.sources = &sources_;
    r.arena = &arena_;
    r.program = program_;
    r.tvlsem = [this](const language::SEMARG& action, PROCSTR& proc, language::TokenStream& stream) {
      return static_cast<language::Action>(action.action) == language::Action::end_compartment_model
                 ? generate_compartments(proc, stream)
             : static_cast<language::Action>(action.action) == language::Action::end_model
                 ? generate_model(proc, stream)
                 : 0;
    };
    r.on_procedure_statement = [this](const STMT& procedure) { return open_input(procedure); };
    r.read_file = [this](const std::string& path, const std::string&) -> std::optional<std::string> {
      std::string bytes, problem;
      const auto full = std::filesystem::path(request_.folder) / path;
      if (!host::read_file(full.string(), bytes, problem)) return std::nullopt;
      return bytes;
    };
    return r;
  }

  // --- A step being read ---------------------------------------------------------------------------------------------

  void begin_reading()
  {
    step_open_ = false;
    data_given_ = false;
    data_.reset();
    model_fault_ = false;
  }

  // Steps begin when their first word is known, so that messages of reading belong to them.
  void ensure_step()
  {
    if (!step_open_) host_.begin_step();
    step_open_ = true;
  }

  // Opens DATA= as soon as the TORVALE statement has been read: name lists need the order of its variables.
  std::vector<language::InputVariable> open_input(const STMT& procedure)
  {
    ensure_step();
    std::vector<language::InputVariable> variables;
    data_given_ = procedure.given(torvale_slot::data) && !procedure.slot(torvale_slot::data).list.empty();
    if (!data_given_) return variables;
    const syntax::StItem& item = procedure.slot(torvale_slot::data).list[0];
    const host::StageScope stage(host_.stages(), host::Stage::read);
    const host::MessagePlace place = sources_.place("TORVALE", item.where);
    host::DataSetReference reference{item.text, item.quoted, {}};
    if (!item.options.empty()) {
      auto options = host::parse_data_set_options(item.options, host_.log(), place);
      if (!options) return variables;
      reference.options = std::move(*options);
    }
    if (procedure.flag(torvale_flag::nosortsub)) reference.memory = std::make_shared<host::ScratchFile>();
    data_ = host_.libraries().xoopen(reference, host_.log(), place);
    if (data_)
      for (const auto& column : data_->columns()) variables.push_back({column.name(), !column.numeric()});
    return variables;
  }

  static int push_lines(language::TokenStream& stream, const std::vector<std::string>& lines)
  {
    if (language::xtanch(stream) != 0 || language::xttpshx(stream) != 0) return 1;
    for (const std::string& line : lines)
      if (language::xttpshb(stream, line) != 0) return 1;
    return 0;
  }

  // Action 77: the statements of a compartment model.
  int generate_compartments(PROCSTR& proc, language::TokenStream& stream)
  {
    host::MessagePlace place;
    place.statement = "CMPTMODEL";
    place.line = sources_.user_position(proc.current->where).line;
    std::vector<compartment::Variable> variables;
    if (data_)
      for (const auto& column : data_->columns())
        variables.push_back(
            {column.name(), !column.numeric(), column.numeric() ? column.numbers() : std::span<const double>()});
    STMT* last = nullptr;
    const int earlier = syntax::FindStmt(proc, proc.current->name, &last) - 1;
    const auto lines =
        compartment::zcmpt(*proc.current, variables, earlier, writes_log(proc.program), place, host_.log());
    return lines.empty() ? 1 : push_lines(stream, lines);
  }

  // The end of MODEL: the statements of the MODEL distribution go in front of what is left of the program.
  int generate_model(PROCSTR& proc, language::TokenStream& stream)
  {
    const STMT& procedure = proc.statements.front();
    const STMT& model = *proc.current;
    ModelText text;
    text.code = static_cast<int>(model.number_or(model_slot::distribution, 0));
    text.singvar = procedure.number_or(torvale_slot::singvar, smallest_variance);
    const int method = static_cast<int>(procedure.number_or(torvale_slot::method, 0));
    const auto& arguments = model.slot(model_slot::arguments).list;
    const auto refuse = [&](const host::NumberedMessage& problem) {
      host_.log().xpmlog(problem, sources_.place("MODEL", model.where));
      model_fault_ = true;
      return 1;
    };
    if (method == 1 && text.code != 0) return refuse(message::firo_needs_normal);
    if (text.code == 8) return refuse(message::discrete_in_model);
    const int expected = expected_arguments(text.code);
    if (static_cast<int>(arguments.size()) != expected)
      return refuse(message::wrong_number_of_model_arguments{.expected = expected, .found = arguments.size()});
    if (model.slot(model_slot::dependent).list.empty()) return 0;
    text.dependent = model.slot(model_slot::dependent).list[0].text;
    for (const auto& argument : arguments) text.arguments.push_back(syntax::to_text(*argument.expr));

    return push_lines(stream, tvlmodl(text));
  }

  void report(const std::vector<language::Diagnostic>& diagnostics)
  {
    for (const auto& d : diagnostics) {
      host::Message message;
      message.group = language::message_group;
      message.number = d.number();
      message.length = d.length;
      message.severity = d.severity == language::Severity::note      ? host::Severity::note
                         : d.severity == language::Severity::warning ? host::Severity::warning
                                                                     : host::Severity::error;
      const host::MessagePlace place = sources_.place({}, d.where);
      message.file = place.program;
      message.line = place.line;
      message.column = place.column;
      message.source = place.source;
      message.text = language::sentences(d);
      const bool generated = d.where.line > 0 && sources_.source(d.where.source).generated;
      if (generated) message.length = 0; // of another text
      const std::string text(sources_.line_text(d.where));
      if (generated)
        message.text = "In statements that " + sources_.source(d.where.source).name + " generated: " + message.text;
      host_.log().post(std::move(message));
      if (!generated) continue;
      for (const auto& line : host::source_excerpt(d.where.line, text, d.where.column, d.length))
        host_.log().xpslog(line);
    }
  }

  // --- A step that has been read
  // ---------------------------------------------------------------------------------------

  StepOutcome finish(language::ParseResult& parsed)
  {
    if (model_fault_) return {1012, exit_program};
    if (parsed.proc.error) return {3000, exit_program};
    if (!data_) {
      if (!data_given_) {
        std::string known;
        for (const auto& name : host_.libraries().bound_names()) known += (known.empty() ? "" : ", ") + name;
        host_.log().xpmlog(message::no_input_data{.known = known});
      }
      if (request_.check_only) host_.log().xpmlog(message::only_grammar_checked);
      return {1008, exit_data};
    }
    host::DataSource& source = host_.step().data;
    source.name = data_->name;
    source.path = data_->path;
    if (request_.hash_data) {
      const host::StageScope stage(host_.stages(), host::Stage::read);
      source.sha256 = host::file_sha256(data_->path);
    }
    source.rows = data_->rows();
    source.variables = data_->columns().size();
    model::NX n;
    n.host = &host_;
    n.proc = &parsed.proc;
    n.sources = &sources_;
    n.fid = &*data_;
    n.data_name = data_->name;
    n.command_threads = request_.threads;
    n.seed = request_.seed;
    n.pictures = request_.pictures;
    if (!request_.check_only) {
      const StepOutcome outcome = hsttorvl(n);
      // A seed from the clock changes nothing in a run that draws no numbers, and would change its results' bytes.
      if (request_.seed > 0 || parsed.proc.statements.front().given(torvale_slot::seed) || draws_numbers(n))
        host_.step().seed = n.seed;
      if (request_.observe) request_.observe(n);
      return outcome;
    }
    try {
      tvlinit(n);
      advise_on_program(n);
      complete_sample_output(n);
      write_model_summary(n);
      return {n.tvlrc, exit_clean};
    } catch (const host::HostExit& end) {
      return {std::max(n.tvlrc, end.return_code), end.return_code == 1008 ? exit_data : exit_program};
    }
  }

  int out_of_memory()
  {
    ensure_step();
    host_.log().xpmlog(message::out_of_memory);
    host_.end_step(1016, true);
    return exit_internal;
  }

  int empty_program()
  {
    host_.begin_step();
    host_.log().xpmlog(message::no_step{.program = request_.name});
    host_.end_step(3000, true);
    return exit_program;
  }

  host::Host& host_;
  const ProgramRequest& request_;
  syntax::SourceMap sources_;
  syntax::Arena arena_;
  std::int32_t program_;
  bool step_open_ = false;            // begin_step has been called for the step being read
  bool data_given_ = false;           // DATA= stands in the TORVALE statement
  std::optional<host::DataSet> data_; // the input data set
  bool model_fault_ = false;          // MODEL was refused
  language::Parser parser_;           // last: its callbacks use the rest
};

} // namespace

ProgramResult run_program(host::Host& host, const ProgramRequest& request)
{
  return ProgramRunner(host, request).run();
}

} // namespace torvale::run
