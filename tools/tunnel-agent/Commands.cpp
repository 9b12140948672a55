#include "tools/tunnel-agent/Commands.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "framework/Skein/Trace.h"
#include "framework/Vela/Exception.h"
#include "tools/tunnel-agent/JsonSource.h"
#include "tools/tunnel-agent/Views.h"

namespace Tunnel::Tool {

using Json = nlohmann::json;

namespace {

// nlohmann's message without its "[json.exception.parse_error.101] parse
// error at line 3, column 5: " prefix: the position is given our own way.
// A number too large for a double ("1e999") fails the same way, as an
// out_of_range error without a position.
std::string syntaxMessage(nlohmann::json::exception const& e) {
  std::string text = e.what();
  if (auto at = text.find("column "); at != std::string::npos) {
    if (auto colon = text.find(": ", at); colon != std::string::npos) return text.substr(colon + 2);
  }
  if (auto bracket = text.find("] "); bracket != std::string::npos) return text.substr(bracket + 2);
  return text;
}

std::string positionText(SourcePosition pos) {
  return pos.known() ? std::to_string(pos.line) + ":" + std::to_string(pos.column) + ":" : "";
}

std::string diagnosticText(Diagnostic const& d) {
  return d.path.empty() ? d.message : d.path + ": " + d.message;
}

// Duplicate keys are errors in scenarios: the JSON reader would silently keep the last one.
void addDuplicateKeys(JsonSourceMap const& map, Diagnostics& diagnostics) {
  for (auto const& path : map.duplicateKeys()) diagnostics.push_back({path, "this key is given twice", true});
}

std::optional<Json> parseJson(std::string const& text, std::string const& name, std::ostream& err) {
  try {
    return Json::parse(text);
  } catch (Json::parse_error const& e) {
    // e.byte counts from 1 and points at the character that was read last.
    SourcePosition const pos = positionOfOffset(text, e.byte == 0 ? 0 : e.byte - 1);
    err << name << ":" << positionText(pos) << " error: " << syntaxMessage(e) << "\n";
  } catch (Json::out_of_range const& e) {
    err << name << ": error: " << syntaxMessage(e) << "\n";
  }
  err << name << ": not valid JSON; nothing was applied\n";
  return std::nullopt;
}

void printViews(std::vector<ViewRequest> const& views, Lab const& lab, std::ostream& out, Json* json) {
  bool first = true;
  for (auto const& view : views) {
    ViewOutput const v = renderView(lab, view);
    if (json) {
      json->push_back(v.json);
    } else {
      if (!first) out << "\n";
      out << v.text;
    }
    first = false;
  }
}

void applyTraceLevel(CommonOptions const& options) {
  if (options.traceLevel) Skein::levelIs(*options.traceLevel);
}

}  // namespace

void ProgressPrinter::operator()(Progress const& p) {
  // Forced: a line every 0.2 s and a summary at the end. On a terminal: only
  // for settles that take a second or more, rewriting one line.
  bool const show = (forced_ || terminal_) && p.elapsed >= (forced_ ? 0.0 : 1.0);
  bool const due = p.done ? (printed_ || forced_) : (show && p.elapsed - lastPrinted_ >= 0.2);
  if (due) {
    std::ostringstream line;
    line.setf(std::ios::fixed);
    line.precision(1);
    line << "reviewing tunnels: " << p.reviewed << " reviewed, " << p.backlog << " in the backlog, "
         << p.elapsed << " s";
    if (terminal_) {
      err_ << "\r\033[K" << line.str() << (p.done ? "\n" : "");
    } else {
      err_ << line.str() << "\n";
    }
    err_.flush();
  }
  if (p.done) {
    printed_ = false;
    lastPrinted_ = 0;
  } else if (due) {
    printed_ = true;
    lastPrinted_ = p.elapsed;
  }
}

std::optional<Scenario> readScenarioText(std::string const& name, std::string const& text,
                                         std::ostream& err) {
  auto document = parseJson(text, name, err);
  if (!document) return std::nullopt;
  JsonSourceMap const map(text);
  Diagnostics diagnostics;
  addDuplicateKeys(map, diagnostics);
  auto scenario = readScenario(*document, diagnostics);
  if (diagnostics.empty() && scenario) return scenario;
  // In the order of the file, whatever the order they were found in.
  std::vector<std::pair<SourcePosition, Diagnostic const*>> located;
  for (auto const& d : diagnostics) located.emplace_back(d.atKey ? map.key(d.path) : map.value(d.path), &d);
  std::stable_sort(located.begin(), located.end(), [](auto const& a, auto const& b) {
    auto const key = [](SourcePosition p) { return std::pair(p.known() ? p.line : SIZE_MAX, p.column); };
    return key(a.first) < key(b.first);
  });
  for (auto const& [pos, d] : located) {
    err << name << ":" << positionText(pos) << " error: " << diagnosticText(*d) << "\n";
  }
  err << name << ": " << diagnostics.size() << (diagnostics.size() == 1 ? " error" : " errors")
      << "; nothing was applied\n";
  return std::nullopt;
}

std::optional<Scenario> readScenarioFile(std::string const& file, std::ostream& err) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    err << "tunnel-agent: cannot read " << file << ": " << std::strerror(errno) << "\n";
    return std::nullopt;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return readScenarioText(file, text.str(), err);
}

// --- run ----------------------------------------------------------------------------------------

int runScenarioText(RunOptions const& options, std::string const& name, std::string const& text,
                    std::ostream& out, std::ostream& err) {
  // The views asked for on the command line are checked before anything else.
  std::vector<ViewRequest> finalViews;
  if (options.show.empty()) {
    finalViews = defaultViews();
  } else if (!(options.show.size() == 1 && options.show.front() == "none")) {
    for (auto const& text : options.show) {
      std::string why;
      auto view = parseView(text, &why);
      if (!view) {
        err << "tunnel-agent: --show: " << why << "\n";
        return exitBadInput;
      }
      finalViews.push_back(*view);
    }
  }
  auto scenario = readScenarioText(name, text, err);
  if (!scenario) return exitBadInput;
  std::ofstream dot;
  if (!options.dotFile.empty()) {
    dot.open(options.dotFile);
    if (!dot) {
      err << "tunnel-agent: cannot write " << options.dotFile << ": " << std::strerror(errno) << "\n";
      return exitBadInput;
    }
  }
  applyTraceLevel(options);

  Lab lab(options.clock);
  lab.progressHandlerIs(ProgressPrinter(err, options.terminal, options.progress));
  for (TableKind kind : Model::of(*scenario).missingRequiredTables()) {
    err << "tunnel-agent: note: no table " << tableName(kind)
        << " in the scenario; the agent waits for it before it builds the tunnel RIB and FIB\n";
  }
  try {
    lab.load(*scenario);
    Json report = {{"file", name}, {"description", scenario->description}};
    bool const json = options.json;
    bool firstBlock = true;
    auto header = [&](std::string const& title) {
      if (!firstBlock) out << "\n";
      firstBlock = false;
      out << "== " << title << " ==\n";
    };
    if (!json && !scenario->description.empty()) {
      out << scenario->description << "\n";
      firstBlock = false;
    }
    if (!scenario->show.empty()) {
      Json views = Json::array();
      if (!json) header("initial state");
      printViews(scenario->show, lab, out, json ? &views : nullptr);
      report["initial"] = {{"views", views}};
    }
    Json steps = Json::array();
    for (std::size_t i = 0; i < scenario->timeline.size(); ++i) {
      Step const& step = scenario->timeline[i];
      std::string const title = "step " + std::to_string(i + 1) + (step.name.empty() ? "" : ": " + step.name);
      if (!json) header(title);
      Json applied = Json::array();
      for (auto const& action : step.actions) {
        lab.apply(action);
        applied.push_back(describe(action));
        if (!json) out << describe(action) << "\n";
      }
      lab.settle();
      Json views = Json::array();
      if (!step.show.empty() && !json) out << "\n";
      printViews(step.show, lab, out, json ? &views : nullptr);
      steps.push_back({{"step", i + 1}, {"name", step.name}, {"applied", applied}, {"views", views}});
    }
    report["steps"] = steps;
    if (!finalViews.empty()) {
      Json views = Json::array();
      if (!json) header("final state");
      printViews(finalViews, lab, out, json ? &views : nullptr);
      report["final"] = {{"views", views}};
    }
    if (json) out << jsonText(report, 2) << "\n";
    if (dot.is_open()) dot << renderDot(lab);
  } catch (Vela::Exception const& e) {
    err << "tunnel-agent: the tunnel library failed: " << e.what() << "\n";
    return exitFailed;
  }
  return exitOk;
}

int runCommand(RunOptions const& options, std::ostream& out, std::ostream& err) {
  std::ifstream in(options.file, std::ios::binary);
  if (!in) {
    err << "tunnel-agent: cannot read " << options.file << ": " << std::strerror(errno) << "\n";
    return exitBadInput;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return runScenarioText(options, options.file, text.str(), out, err);
}

// --- serve --------------------------------------------------------------------------------------

namespace {

class Server {
 public:
  Server(ServeOptions const& options, Lab& lab, std::ostream& out)
      : options_(options), lab_(lab), out_(out) {}

  // Returns whether the line was accepted (blank lines and comments are).
  bool handle(std::size_t lineNo, std::string const& line) {
    std::string_view text = line;
    while (!text.empty() && (text.back() == '\r' || text.back() == ' ' || text.back() == '\t'))
      text.remove_suffix(1);
    std::size_t const lead = text.find_first_not_of(" \t");
    if (lead == std::string_view::npos || text[lead] == '#') return true;

    Json request;
    try {
      request = Json::parse(text);
    } catch (Json::parse_error const& e) {
      SourcePosition const pos = positionOfOffset(text, e.byte == 0 ? 0 : e.byte - 1);
      reject(lineNo, {{"", "not valid JSON: " + syntaxMessage(e), false}}, {pos});
      return false;
    } catch (Json::out_of_range const& e) {
      reject(lineNo, {{"", "not valid JSON: " + syntaxMessage(e), false}}, {SourcePosition{}});
      return false;
    }
    JsonSourceMap const map(text);
    Diagnostics diagnostics;
    addDuplicateKeys(map, diagnostics);
    Model model = lab_.model();
    std::optional<Step> step;
    if (diagnostics.empty()) step = readStep(request, "", model, diagnostics);
    if (!step) {
      std::vector<SourcePosition> positions;
      for (auto const& d : diagnostics) positions.push_back(d.atKey ? map.key(d.path) : map.value(d.path));
      reject(lineNo, diagnostics, positions);
      return false;
    }
    for (auto const& action : step->actions) lab_.apply(action);
    if (!step->actions.empty()) lab_.settle();
    accept(lineNo, *step);
    return true;
  }

 private:
  void accept(std::size_t lineNo, Step const& step) {
    if (options_.json) {
      Json applied = Json::array();
      for (auto const& action : step.actions) applied.push_back(describe(action));
      Json views = Json::array();
      printViews(step.show, lab_, out_, &views);
      out_ << jsonText(Json{{"line", lineNo}, {"ok", true}, {"applied", applied}, {"views", views}}) << "\n";
    } else {
      out_ << "line " << lineNo << ": ok";
      if (!step.actions.empty()) {
        out_ << ", " << step.actions.size() << (step.actions.size() == 1 ? " change" : " changes")
             << " applied";
      }
      out_ << "\n";
      for (auto const& action : step.actions) out_ << "  " << describe(action) << "\n";
      if (!step.show.empty()) {
        out_ << "\n";
        printViews(step.show, lab_, out_, nullptr);
      }
      out_ << "\n";
    }
    out_.flush();
  }

  void reject(std::size_t lineNo, Diagnostics const& diagnostics,
              std::vector<SourcePosition> const& positions) {
    if (options_.json) {
      Json errors = Json::array();
      for (std::size_t i = 0; i < diagnostics.size(); ++i) {
        Json e = {{"path", diagnostics[i].path}, {"message", diagnostics[i].message}};
        if (i < positions.size() && positions[i].known()) e["column"] = positions[i].column;
        errors.push_back(e);
      }
      out_ << jsonText(Json{{"line", lineNo}, {"ok", false}, {"errors", errors}}) << "\n";
    } else {
      out_ << "line " << lineNo << ": rejected, nothing applied\n";
      for (std::size_t i = 0; i < diagnostics.size(); ++i) {
        out_ << "  ";
        if (i < positions.size() && positions[i].known()) out_ << "column " << positions[i].column << ": ";
        out_ << diagnosticText(diagnostics[i]) << "\n";
      }
      out_ << "\n";
    }
    out_.flush();
  }

  ServeOptions const& options_;
  Lab& lab_;
  std::ostream& out_;
};

}  // namespace

int serveCommand(ServeOptions const& options, std::istream& in, std::ostream& out, std::ostream& err) {
  std::optional<Scenario> scenario;
  if (options.file) {
    scenario = readScenarioFile(*options.file, err);
    if (!scenario) return exitBadInput;
  }
  applyTraceLevel(options);
  Lab lab(options.clock);
  lab.progressHandlerIs(ProgressPrinter(err, options.terminal, options.progress));
  bool rejected = false;
  try {
    if (scenario) {
      // The timeline of a scenario is not played here: requests take its place.
      Scenario initial = *scenario;
      initial.timeline.clear();
      lab.load(initial);
    } else {
      lab.loadEmpty();
    }
    Server server(options, lab, out);
    std::string line;
    std::size_t lineNo = 0;
    while (std::getline(in, line)) {
      ++lineNo;
      if (!server.handle(lineNo, line)) rejected = true;
    }
  } catch (Vela::Exception const& e) {
    err << "tunnel-agent: the tunnel library failed: " << e.what() << "\n";
    return exitFailed;
  }
  return rejected ? exitBadInput : exitOk;
}

}  // namespace Tunnel::Tool
