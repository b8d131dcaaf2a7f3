// make_message_names FOLDER: the build step that turns the catalogue into the names that sources use, a header for each
// topic of the catalogue, so that a new message compiles those that speak of its topic.
//
// A message without arguments becomes a constant, one with arguments a record with a member for each: a required one
// has no default, so that a call that leaves it out or misspells it does not compile. Messages whose arguments go by
// position ({0}) are raised by number from another library and become constants. The files are written only when they
// change, so that a new wording compiles one file.
#include "host/messages/catalogue.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>
#include <string>

namespace {

using torvale::host::CatalogueEntry, torvale::host::CatalogueTopic;

struct Argument {
  std::string name;
  bool required;
};

// The arguments of a text in order of appearance; required when one use stands outside brackets.
std::vector<Argument> arguments_of(std::string_view text)
{
  std::vector<Argument> out;
  std::size_t stretch_end = 0; // of a bracketed stretch that names an argument
  for (std::size_t i = 0; i < text.size(); ++i) {
    const std::size_t close = text[i] == '[' ? text.find(']', i) : std::string_view::npos;
    if (close != std::string_view::npos && text.find('{', i) < close) stretch_end = close;
    if (text[i] != '{') continue;
    const std::size_t end = text.find('}', i);
    if (end == std::string_view::npos) break;
    const std::string name(text.substr(i + 1, end - i - 1));
    const bool required = i >= stretch_end;
    const auto known = std::find_if(out.begin(), out.end(), [&](const Argument& a) { return a.name == name; });
    if (known == out.end())
      out.push_back({name, required});
    else
      known->required = known->required || required;
  }
  return out;
}

std::string code_of(const CatalogueEntry& e)
{
  return "{" + std::to_string(e.group) + ", " + std::to_string(e.number) + "}";
}

std::string definition(const CatalogueEntry& e)
{
  const std::vector<Argument> arguments = arguments_of(e.text);
  const std::string name(e.name);
  if (arguments.empty() || arguments[0].name.find_first_not_of("0123456789") == std::string::npos)
    return "inline constexpr MessageCode " + name + code_of(e) + ";\n";
  std::string out =
      "struct " + name + " {\n  static constexpr int message_number = " + std::to_string(e.number) + ";\n";
  std::string list;
  for (const Argument& a : arguments) {
    out += a.required ? "  MessageValue " + a.name + ";\n" : "  OptionalMessageValue " + a.name + "{};\n";
    list += (list.empty() ? "{\"" : ", {\"") + a.name + "\", " + a.name + "}";
  }
  return out + "  operator NumberedMessage() const { return {" + code_of(e) + ", {" + list + "}}; }\n};\n";
}

std::string namespace_of(const CatalogueEntry& e)
{
  if (e.label) return "label";
  return e.group == 503 ? "message" : e.group == 352 ? "option_message" : e.group == 549 ? "status_message" : "";
}

std::string names_header(const CatalogueTopic& topic)
{
  std::map<std::string, std::string> parts;
  for (const CatalogueEntry& e : topic.entries)
    if (const std::string part = namespace_of(e); !part.empty()) parts[part] += definition(e);
  std::string out = "#pragma once\n// Made from the catalogue of messages.\n#include \"host/messages/messages.h\"\n\n";
  for (const auto& [part, definitions] : parts)
    out += "namespace torvale::" + part +
           " {\nusing host::MessageCode, host::MessageValue, host::OptionalMessageValue, "
           "host::NumberedMessage;\n" +
           definitions + "}\n";
  return out;
}

std::string problems_header()
{
  std::string out =
      "#pragma once\n// Made from the catalogue of messages: group 100, the parser.\n#include <cstdint>\n\n"
      "namespace torvale {\nenum class Problem : std::int16_t {\n";
  for (const CatalogueEntry& e : torvale::host::catalogue())
    if (e.group == 100) out += "  " + std::string(e.name) + " = " + std::to_string(e.number) + ",\n";
  return out + "};\n}\n";
}

bool write_if_different(const std::filesystem::path& path, const std::string& text)
{
  std::ifstream before(path, std::ios::binary);
  if (before && std::string(std::istreambuf_iterator<char>(before), {}) == text) return true;
  std::ofstream out(path, std::ios::binary);
  out << text;
  return static_cast<bool>(out.flush());
}

// Two messages of one number, or of one name: the catalogue is wrong.
bool unique()
{
  std::set<std::pair<int, int>> numbers;
  std::set<std::string> names;
  bool good = true;
  for (const CatalogueEntry& e : torvale::host::catalogue()) {
    const std::string name = namespace_of(e) + "::" + std::string(e.name);
    if (numbers.emplace(e.group, e.number).second && names.insert(name).second) continue;
    std::cerr << "catalogue.cpp: " << e.group << "/" << e.number << " (" << name << ") stands there twice\n";
    good = false;
  }
  return good;
}

} // namespace

int main(int argc, char** argv)
{
  if (argc != 2) {
    std::cerr << "usage: make_message_names FOLDER\n";
    return 2;
  }
  if (!unique()) return 1;
  const std::filesystem::path folder(argv[1]);
  bool good = write_if_different(folder / "problem_numbers.h", problems_header());
  for (const CatalogueTopic& topic : torvale::host::catalogue_topics())
    good = write_if_different(folder / (std::string(topic.name) + ".h"), names_header(topic)) && good;
  return good ? 0 : 1;
}
