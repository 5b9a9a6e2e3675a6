#pragma once

#include <vector>

#include "check/diagnostic.h"
#include "launchfile/source_text.h"
#include "output/output.h"

namespace vorn::launch {

/// One file and its diagnostics.
struct CheckedFile {
  SourceText document;
  bool isLoaded = false;  // the launcher would load it
  Diagnostics diagnostics;
};

/// One line per diagnostic in the format of compilers, "FILE:LINE:COLUMN:
/// error: TEXT [NAME]", and one per note. With `has_source`, the source line
/// and a caret follow each. `fd` is the descriptor of `out`: in the journal,
/// the lines have levels.
void printAsText(Output& out, const CheckedFile& file, bool has_source,
                 bool has_colours, int fd);

/// One JSON document; docs/checks.md describes its members.
void printAsJson(Output& out, const std::vector<CheckedFile>& files);

/// One document in the Static Analysis Results Interchange Format, 2.1.0.
void printAsSarif(Output& out, const std::vector<CheckedFile>& files);

/// Workflow commands that mark the locations in a merge request.
void printAsGithub(Output& out, const std::vector<CheckedFile>& files);

}  // namespace vorn::launch
