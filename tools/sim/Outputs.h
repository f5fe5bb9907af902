#ifndef TALMEM_TOOLS_SIM_OUTPUTS_H
#define TALMEM_TOOLS_SIM_OUTPUTS_H

// What a run leaves: the summary table (stdout), report.json, timeline.csv,
// trace.json (Trace Event Format, for the Perfetto UI) and timeline.png.

#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

#include "Figures.h"

namespace talsim {

nlohmann::json ReportJson(const RunFigures& figures, const std::string& source);
void PrintSummary(FILE* out, const RunFigures& figures);
void WriteTimelineCsv(const std::string& path, const RunFigures& figures);
void WriteTraceJson(const std::string& path, const RunFigures& figures);
// Draws timeline.png from timeline.csv with gnuplot; false when gnuplot failed.
bool DrawTimeline(const std::string& csvPath, const std::string& pngPath, const RunFigures& figures);

} // namespace talsim

#endif // TALMEM_TOOLS_SIM_OUTPUTS_H
