#include <algorithm>
#include <cmath>
#include <fstream>
#include <stdexcept>

#include "bench/mount/results.h"

namespace bench {
namespace {

constexpr int kLine = 26;     // all in pixels
constexpr int kLeft = 330;    // where the scale begins
constexpr int kDecade = 150;  // ten times better
constexpr int kRight = 340;   // room for the numbers
constexpr int kTop = 70;
constexpr double kWorst = 0.1;
constexpr double kBest = 1000;

double Place(double ratio) {
  return kLeft + kDecade * std::log10(std::clamp(ratio, kWorst, kBest) / kWorst);
}

std::string Escaped(const std::string& text) {
  std::string escaped;
  for (const char c : text)
    escaped += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
  return escaped;
}

void Text(std::ostream& out, double x, double y, const std::string& text,
          const std::string& more = "") {
  out << "<text x='" << x << "' y='" << y << "' " << more << ">" << Escaped(text) << "</text>\n";
}

const char* Colour(Result::Verdict verdict) {
  if (verdict == Result::Verdict::kMissed) return "#c0392b";
  return verdict == Result::Verdict::kMet ? "#2e7d4f" : "#8a8f98";
}

void Scale(std::ostream& out, double bottom) {
  for (double ratio = kWorst; ratio <= kBest * 1.01; ratio *= 10) {
    const double x = Place(ratio);
    const char* dash = std::abs(ratio - 1) < 0.01 ? "" : "stroke-dasharray='2 4'";
    out << "<line x1='" << x << "' x2='" << x << "' y1='" << kTop - 8 << "' y2='" << bottom
        << "' stroke='#b8bcc4' " << dash << "/>\n";
    Text(out, x, kTop - 14, NumberText(ratio, "x"), "text-anchor='middle' fill='#555b66'");
  }
}

void Bar(std::ostream& out, const Result& result, double y) {
  const std::string& unit = result.figure.unit;
  const double ratio = result.Ratio();
  Text(out, 12, y + 15, result.figure.text, "xml:space='preserve'");
  if (!std::isnan(ratio)) {
    const double from = std::min(Place(ratio), Place(1));
    const double width = std::max(std::abs(Place(ratio) - Place(1)), 1.0);
    out << "<rect x='" << from << "' y='" << y + 3 << "' width='" << width << "' height='"
        << kLine - 9 << "' fill='" << Colour(result.Judge()) << "'/>\n";
  }
  const std::string theirs = NumberText(result.Of("rclone"), unit);
  std::string numbers = NumberText(result.Of("vormlane"), unit) + "  (" + theirs + ")";
  if (const std::string aim = result.AimText(); !aim.empty()) numbers += "  " + aim;
  Text(out, Place(kBest) + 14, y + 15, numbers,
       std::string("fill='") + Colour(result.Judge()) + "'");
}

}  // namespace

void WritePlot(const std::vector<Result>& results, const std::filesystem::path& file) {
  std::ofstream out(file);
  const double bottom = kTop + kLine * static_cast<double>(results.size());
  const double width = Place(kBest) + kRight;
  out << "<svg xmlns='http://www.w3.org/2000/svg' width='" << width << "' height='" << bottom + 44
      << "' font-family='sans-serif' font-size='13'>\n<rect width='100%' height='100%' "
         "fill='#ffffff'/>\n";
  Text(out, 12, 26, "vormlane mount against rclone mount, 50 ms a request, 1 Gbit/s",
       "font-size='16' font-weight='bold'");
  Scale(out, bottom);
  for (size_t i = 0; i < results.size(); ++i)
    Bar(out, results[i], kTop + kLine * static_cast<double>(i));
  Text(out, 12, bottom + 28,
       "Bars: times better than rclone. Right: vormlane (rclone), aim. Green: met, red: missed, "
       "grey: no aim.",
       "fill='#555b66'");
  out << "</svg>\n";
  if (!out.flush()) throw std::runtime_error("cannot write " + file.string());
}

}  // namespace bench
