#pragma once

#include <string>

#include "check/diagnostic.h"
#include "live/health.h"
#include "live/node_cells.h"
#include "live/node_status.h"
#include "output/output.h"

// The HTML that several sections of a report use.

namespace vorn::launch {

/// A symbol for a condition, so that its colour is not its only difference.
OutputText symbolFor(Condition condition);

/// The class of a text with this meaning in the style sheet of the report.
OutputText classFor(Colour colour);
OutputText classFor(Severity severity);
OutputText classFor(Verdict verdict);

/// A name that does not change the direction of the text around it.
OutputText isolatedName(const std::string& name);

/// Begins a section; its heading has the id `id`. The caller writes its end.
void beginSection(Output& out, const OutputText& id, const OutputText& title);

/// Begins a "div" that scrolls; the caller writes its end.
void beginScroll(Output& out, const OutputText& label,
                 const OutputText& more_class = "");

}  // namespace vorn::launch
