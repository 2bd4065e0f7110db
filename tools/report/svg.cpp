#include "tools/report/svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace bthalctl {
namespace {

constexpr double kWidth = 960;
constexpr double kLabels = 190;  // to the left of the axis
constexpr double kRight = 20;
constexpr double kRow = 22;
constexpr double kAxis = 26;  // below the rows
constexpr double kCurveHeight = 150;

template <typename... Values>
std::string FormatNumbers(const char* format, Values... values) {
  char text[512];
  std::snprintf(text, sizeof text, format, values...);
  return text;
}

// A round distance such that about eight of them fit.
double TickDistance(double range) {
  const double rough = range / 8;
  const double power = std::pow(10, std::floor(std::log10(rough)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (factor * power >= rough) return factor * power;
  }
  return 10 * power;
}

class Axis {
 public:
  Axis(double begin, double end) : begin_(begin), end_(std::max(end, begin + 1e-3)) {}

  double At(double seconds) const {
    const double part = (std::clamp(seconds, begin_, end_) - begin_) / (end_ - begin_);
    return kLabels + part * (kWidth - kLabels - kRight);
  }
  std::string Draw(double height) const {
    std::string out;
    const double step = TickDistance(end_ - begin_);
    for (double at = std::ceil(begin_ / step) * step; at <= end_; at += step) {
      out += FormatNumbers("<line class=\"grid\" x1=\"%.1f\" y1=\"0\" x2=\"%.1f\" y2=\"%.1f\"/>",
                           At(at), At(at), height);
      out += FormatNumbers("<text class=\"tick\" x=\"%.1f\" y=\"%.1f\">%.6g s</text>", At(at),
                           height + 16, std::abs(at) < step / 1000 ? 0.0 : at);
    }
    return out;
  }

 private:
  const double begin_, end_;
};

std::string BeginDrawing(const std::string& what, double height) {
  return FormatNumbers("<svg viewBox=\"0 0 %.0f %.0f\" role=\"img\"", kWidth, height + kAxis) +
         " aria-label=\"" + Escape(what) + "\">";
}

std::string Label(const std::string& text, double y) {
  return FormatNumbers("<text class=\"label\" x=\"%.0f\" y=\"%.1f\">", kLabels - 8, y) +
         Escape(text) + "</text>";
}

}  // namespace

std::string Escape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\n':
      case '\t':
        out += c;
        break;
      default:
        out += byte < 0x20 || byte == 0x7F ? '?' : c;
    }
  }
  return out;
}

std::string TimeText(double seconds) {
  if (seconds < 10) return FormatNumbers("%.3f s", seconds);
  if (seconds < 120) return FormatNumbers("%.1f s", seconds);
  return FormatNumbers("%.0f min %.0f s", std::floor(seconds / 60), std::fmod(seconds, 60));
}

std::string DrawRows(const std::string& what, const std::vector<BarRow>& rows, double begin,
                     double end) {
  const Axis axis(begin, end);
  const double height = kRow * static_cast<double>(rows.size());
  std::string out = BeginDrawing(what, height) + axis.Draw(height);
  double y = 0;
  for (const BarRow& row : rows) {
    out += Label(row.label, y + kRow - 7);
    for (const Bar& bar : row.bars) {
      out +=
          FormatNumbers("<rect class=\"%s\" x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" height=\"%.0f\">",
                        bar.style.c_str(), axis.At(bar.begin), y + 4,
                        std::max(axis.At(bar.end) - axis.At(bar.begin), 1.5), kRow - 8);
      out += "<title>" + Escape(bar.title) + "</title></rect>";
    }
    y += kRow;
  }
  return out + "</svg>\n";
}

std::string DrawCurves(const std::string& what, const std::vector<Curve>& curves,
                       const std::string& unit, double begin, double end) {
  double low = 0, high = 0;
  bool first = true;
  for (const Curve& curve : curves) {
    for (const auto& [time, value] : curve.points) {
      low = first ? value : std::min(low, value);
      high = first ? value : std::max(high, value);
      first = false;
    }
  }
  if (low > 0) low = 0;  // what counts upwards begins at nothing
  if (high <= low) high = low + 1;
  const Axis axis(begin, end);
  const auto y = [&](double value) {
    return kCurveHeight - (value - low) / (high - low) * (kCurveHeight - 12);
  };
  std::string out = BeginDrawing(what, kCurveHeight) + axis.Draw(kCurveHeight);
  const double step = TickDistance((high - low) * 2);
  for (double value = std::ceil(low / step) * step; value <= high; value += step) {
    out += FormatNumbers("<line class=\"grid\" x1=\"%.0f\" y1=\"%.1f\" x2=\"%.0f\" y2=\"%.1f\"/>",
                         kLabels, y(value), kWidth - kRight, y(value));
    out += Label(FormatNumbers("%.6g ", value) + unit, y(value) + 4);
  }
  for (const Curve& curve : curves) {
    out += FormatNumbers("<path class=\"curve %s\" d=\"", curve.style.c_str());
    double last_y = 0;
    bool begun = false;
    for (const auto& [time, value] : curve.points) {
      if (begun && curve.steps) out += FormatNumbers("L%.1f %.1f", axis.At(time), last_y);
      out += FormatNumbers("%c%.1f %.1f", begun ? 'L' : 'M', axis.At(time), y(value));
      last_y = y(value);
      begun = true;
    }
    out += "\"><title>" + Escape(curve.label) + "</title></path>";
    if (!curve.steps) {
      for (const auto& [time, value] : curve.points) {
        out += FormatNumbers("<circle class=\"%s\" cx=\"%.1f\" cy=\"%.1f\" r=\"2.5\"/>",
                             curve.style.c_str(), axis.At(time), y(value));
      }
    }
  }
  return out + "</svg>\n";
}

}  // namespace bthalctl
