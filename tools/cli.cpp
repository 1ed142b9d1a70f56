#include "cli.hpp"

#include <algorithm>

namespace zelmtool {

const char* const statustable = R"(exit status:
  0  done
  1  a file is not what was asked: not a grid, restart or pix file, damaged or cut short,
     does not fit its grid, or a check failed
  2  usage or environment: an unknown verb or option, a missing value, a file that is missing
     or unreadable, an output that exists (without --force), is not a regular file, or cannot
     be written
)";

void die(const std::string& message, int status) {
  throw failure{message, status};
}

namespace {

bool contains(const std::vector<std::string>& v, const std::string& s) {
  return std::find(v.begin(), v.end(), s) != v.end();
}

bool isoption(const std::string& s) {
  return s.size() > 1 && s[0] == '-';
}

// A global option: sets it and says so.
bool globaloption(const std::string& s, globaloptions& g) {
  if (s == "-q" || s == "--quiet") return g.quiet = true;
  if (s == "-v" || s == "--verbose") return g.verbose = true;
  if (s == "-h" || s == "--help") return g.help = true;
  if (s == "--version") return g.version = true;
  return false;
}

// The option's name and, when given in the same word ("--grid=G", "-oOUT"), its value.
std::pair<std::string, std::string> split(const std::string& s, const std::vector<std::string>& valued) {
  const auto eq = s.find('=');
  if (s.rfind("--", 0) == 0 && eq != std::string::npos) return {s.substr(0, eq), s.substr(eq + 1)};
  if (s.rfind("--", 0) != 0 && s.size() > 2 && contains(valued, s.substr(0, 2)))
    return {s.substr(0, 2), s.substr(2)};
  return {s, ""};
}

}  // namespace

commandline parse(int argc, const char* const* argv, const std::vector<verbspec>& verbs) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  commandline c;

  // The verb: the first word that is neither an option nor an option's value (options may come
  // before it, and take their values from the words that follow them).
  std::vector<std::string> anyvalued;
  for (const auto& v : verbs) anyvalued.insert(anyvalued.end(), v.valued.begin(), v.valued.end());
  std::size_t at = words.size();
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--") {
      at = i + 1 < words.size() ? i + 1 : words.size();
      break;
    }
    if (!isoption(words[i])) {
      at = i;
      break;
    }
    const auto [name, value] = split(words[i], anyvalued);
    if (contains(anyvalued, name) && value.empty() && words[i].find('=') == std::string::npos) ++i;
  }
  const verbspec* syntax = nullptr;
  if (at < words.size()) {
    c.verb = words[at];
    for (const auto& v : verbs)
      if (v.name == c.verb) syntax = &v;
  }

  bool ended = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    const std::string& s = words[i];
    if (i == at) continue;
    if (!ended && s == "--") {
      ended = true;
      continue;
    }
    if (ended || !isoption(s)) {
      c.positional.push_back(s);
      continue;
    }
    if (globaloption(s, c.global)) continue;
    if (syntax == nullptr) {
      if (c.verb.empty()) die("unknown option " + s + " (options of a verb come with the verb)", 2);
      continue;  // the unknown verb is the failure to report
    }
    const auto [name, inword] = split(s, syntax->valued);
    if (contains(syntax->flags, name)) {
      if (name != s) die("option " + name + " takes no value", 2);
      c.options.insert_or_assign(name, std::string("set"));
    } else if (contains(syntax->valued, name)) {
      if (name != s) {
        c.options[name] = inword;
      } else if (i + 1 >= words.size() || isoption(words[i + 1])) {
        die("option " + name + " is missing its value", 2);
      } else {
        c.options[name] = words[++i];
      }
    } else {
      die("unknown option " + s + " for " + c.verb, 2);
    }
  }
  if (!c.verb.empty() && syntax == nullptr && !c.global.help) die("unknown verb \"" + c.verb + "\"", 2);
  return c;
}

}  // namespace zelmtool
