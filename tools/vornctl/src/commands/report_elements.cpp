#include "commands/report_elements.h"

namespace vorn::launch {

OutputText symbolFor(Condition condition) {
  switch (condition) {
    case Condition::RUNNING:
      return "&#9679;";
    case Condition::EXITING:
    case Condition::STOPPING:
      return "&#9684;";
    case Condition::RESTARTING:
      return "&#8635;";
    case Condition::DISABLED:
      return "&#8856;";
    case Condition::STOPPED:
      return "&#9632;";
    case Condition::NEVER_STARTED:
      return "&#9675;";
    case Condition::FAILED:
      return "&#10007;";
    case Condition::UNKNOWN_NODE:
      break;
  }
  return "?";
}

OutputText classFor(Colour colour) {
  switch (colour) {
    case Colour::GREEN:
      return "good";
    case Colour::YELLOW:
      return "warn";
    case Colour::RED:
      return "bad";
    case Colour::FAINT:
      return "muted";
    case Colour::BOLD:
    case Colour::NONE:
      break;
  }
  return "plain";
}

OutputText classFor(Severity severity) {
  switch (severity) {
    case Severity::ERROR:
      return "bad";
    case Severity::WARNING:
      return "warn";
    case Severity::NOTE:
      break;
  }
  return "muted";
}

OutputText classFor(Verdict verdict) {
  switch (verdict) {
    case Verdict::ERROR:
      return "bad";
    case Verdict::WARNING:
      return "warn";
    case Verdict::UNKNOWN:
      return "muted";
    case Verdict::PASSED:
      break;
  }
  return "good";
}

OutputText isolatedName(const std::string& name) {
  return "<bdi class=\"node\">" + htmlText(name) + "</bdi>";
}

void beginSection(Output& out, const OutputText& id, const OutputText& title) {
  out << "<section aria-labelledby=\"" << id << "\">\n<h2 id=\"" << id << "\">"
      << title << "</h2>\n";
}

void beginScroll(Output& out, const OutputText& label,
                 const OutputText& more_class) {
  out << "<div class=\"scroll " << more_class
      << "\" role=\"region\" tabindex=\"0\" aria-label=\"" << label << "\">\n";
}

}  // namespace vorn::launch
