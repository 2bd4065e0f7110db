// Drawings for a page: inline SVG whose colours and fonts the page's style sheet decides.
#pragma once

#include <string>
#include <vector>

namespace bthalctl {

// text for HTML and SVG; control characters as "?".
std::string Escape(const std::string& text);

// Seconds as a reader likes them: "0.050 s", "12.3 s", "4 min 10 s".
std::string TimeText(double seconds);

// A bar of a row, from begin to end.
struct Bar {
  double begin = 0;
  double end = 0;
  std::string style;  // class of the style sheet
  std::string title;  // shown while pointed at
};

struct BarRow {
  std::string label;
  std::vector<Bar> bars;
};

// Rows of bars over one axis of seconds. what: what it shows, for those who do not see it.
std::string DrawRows(const std::string& what, const std::vector<BarRow>& rows, double begin,
                     double end);

struct Curve {
  std::string label;
  std::string style;
  std::vector<std::pair<double, double>> points;  // seconds, value
  bool steps = false;                             // a value holds until the next point
};

// Curves over one axis of seconds; the values have this unit.
std::string DrawCurves(const std::string& what, const std::vector<Curve>& curves,
                       const std::string& unit, double begin, double end);

}  // namespace bthalctl
