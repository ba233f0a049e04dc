#include "pipeline/batch/BatchPage.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <initializer_list>
#include <limits>
#include <map>
#include <queue>
#include <string_view>

#include "pipeline/base/FileText.h"
#include "pipeline/base/Median.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/batch/ShellWord.h"

namespace vrk {
namespace {

constexpr std::size_t kMostLeaves = 100;

constexpr std::string_view kStyle = R"css(
:root { --paper: #fff; --ink: #1b1f24; --faint: #59626c; --line: #d0d7de; --panel: #f6f8fa; --link: #0b5cad;
  --high: #00734f; --fair: #9a5b00; --low: #b03a00; --none: #8c959f; }
@media (prefers-color-scheme: dark) { :root { --paper: #14181d; --ink: #e6edf3; --faint: #9aa4af; --line: #3a424c;
  --panel: #1c2229; --link: #7ab8f5; --high: #2cc295; --fair: #e6b422; --low: #ff8a4c; color-scheme: dark; } }
* { box-sizing: border-box; }
body { margin: 0; background: var(--paper); color: var(--ink); font: 16px/1.5 system-ui, "Segoe UI", "DejaVu Sans", sans-serif; }
main { max-width: 1600px; margin: 0 auto; padding: 0 20px 60px; }
h1 { font-size: 1.35rem; } h2 { font-size: 1.2rem; margin: 1.6rem 0 .5rem; } h3 { font-size: 1rem; margin: .6rem 0 0; }
a { color: var(--link); text-decoration: none; } a:hover { text-decoration: underline; }
.faint { color: var(--faint); } p { margin: .4rem 0; }
.numbers { display: flex; flex-wrap: wrap; gap: .4rem 2rem; } .numbers b { font-size: 1.4rem; }
.scroll { overflow: auto; max-height: 80vh; border: 1px solid var(--line); border-radius: 8px; }
table { border-collapse: collapse; width: 100%; font-variant-numeric: tabular-nums; font-size: .85rem; }
th { text-align: left; vertical-align: bottom; line-height: 1.2; background: var(--panel); position: sticky; top: 0; }
#crystals th { cursor: pointer; }
th, td { padding: .2rem .3rem; border-bottom: 1px solid var(--line); } td { white-space: nowrap; }
td.wide { white-space: normal; min-width: 20rem; overflow-wrap: anywhere; } .number { text-align: right; }
td img { display: block; width: 40px; height: 40px; }
.light { display: inline-block; width: .8rem; height: .8rem; border-radius: 50%; margin-right: .4rem; background: var(--none); }
.light.high { background: var(--high); } .light.fair { background: var(--fair); } .light.low { background: var(--low); }
.plots { display: grid; grid-template-columns: repeat(auto-fit, minmax(min(100%, 30rem), 1fr)); gap: 1rem; }
figure { margin: 0; max-width: 48rem; }
svg { width: 100%; max-width: 1100px; height: auto; background: var(--panel); border-radius: 8px; font-size: 12px; }
svg text { fill: var(--ink); } svg .line { stroke: var(--ink); fill: none; } svg .rule { stroke: var(--line); }
svg .cut { stroke: var(--low); stroke-dasharray: 4 3; } svg .mean { stroke: var(--high); } svg .bar { stroke: var(--faint); }
svg circle { fill: var(--link); } svg circle.odd { fill: var(--low); }
code { display: block; font: .92rem/1.5 ui-monospace, "DejaVu Sans Mono", monospace; overflow-wrap: anywhere; background: var(--panel);
  border: 1px solid var(--line); border-radius: 8px; padding: .45rem .6rem; margin: .3rem 0; white-space: pre-wrap; }
input { font: inherit; color: inherit; background: var(--panel); border: 1px solid var(--line); border-radius: 6px; padding: .2rem .6rem; }
)css";

/// Sorts by the column whose head is pressed and hides rows without the words that are typed.
constexpr std::string_view kScript = R"js(
const table = document.querySelector("#crystals"), body = table && table.tBodies[0];
if (body) {
  const key = (row, i) => { const c = row.cells[i]; return c.dataset.key ?? c.textContent; };
  [...table.tHead.rows[0].cells].forEach((head, i) => head.onclick = () => {
    const down = head.dataset.down = head.dataset.down === "1" ? "" : "1";
    const order = (a, b) => { const x = key(a, i), y = key(b, i);
      if (x === "" || y === "") return (x === "") - (y === "");
      const n = x - y; return (Number.isNaN(n) ? x.localeCompare(y, undefined, { numeric: true }) : n) * (down ? 1 : -1); };
    body.append(...[...body.rows].sort(order));
  });
  document.querySelector("#filter").oninput = event => {
    const words = event.target.value.toLowerCase().split(/\s+/).filter(Boolean);
    for (const row of body.rows) { const text = row.textContent.toLowerCase(); row.hidden = !words.every(w => text.includes(w)); }
  };
}
)js";

/// Text that markup cannot hide in.
std::string escaped(std::string_view text) {
    std::string safe;
    for (const char sign : text)
        switch (sign) {
            case '&':
                safe += "&amp;";
                break;
            case '<':
                safe += "&lt;";
                break;
            case '>':
                safe += "&gt;";
                break;
            case '"':
                safe += "&quot;";
                break;
            case '\'':
                safe += "&#39;";
                break;
            default:
                safe += sign;
        }
    return safe;
}

std::string base64(std::string_view bytes) {
    constexpr std::string_view kSigns = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        unsigned triple = 0;
        for (std::size_t j = 0; j < 3; ++j)
            triple = triple << 8U | (i + j < bytes.size() ? static_cast<unsigned char>(bytes[i + j]) : 0U);
        for (std::size_t j = 0; j < 4; ++j)
            text += i + j <= bytes.size() ? kSigns[triple >> (18U - 6U * j) & 63U] : '=';
    }
    return text;
}

class Page {
public:
    Page(const Collection& collection, const BatchFolder& folder)
        : m_collection(collection), m_rows(collection.rows), m_folder(folder) {}

    std::string text() {
        head();
        numbers();
        crystals();
        troubles();
        clusters();
        dendrogram();
        session();
        m_text.append("</main>\n<script>").append(kScript).append("</script>\n</body>\n</html>\n");
        return std::move(m_text);
    }

private:
    void head() {
        m_text =
            "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
            "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
            "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; script-src "
            "'unsafe-inline'; style-src 'unsafe-inline'; img-src data:\">\n<title>vrk batch</title>\n<style>";
        m_text.append(kStyle).append("</style>\n</head>\n<body>\n<main>\n<h1>Crystals of ");
        m_text += escaped(std::filesystem::absolute(m_folder.path()).lexically_normal().string()) + "</h1>\n";
    }

    void number(std::size_t count, const std::string& what, const char* light = nullptr) {
        m_text += "<span>";
        if (light) m_text += std::string("<span class=\"light ") + light + "\"></span>";
        m_text += "<b>" + std::to_string(count) + "</b> " + what + "</span>\n";
    }

    void numbers() {
        const auto withConfidence = [&](const char* level) {
            return static_cast<std::size_t>(std::count_if(m_rows.begin(), m_rows.end(), [&](const auto& row) {
                return row.facts && row.facts->confidence == level;
            }));
        };
        m_text += "<p class=\"numbers\">\n";
        number(m_rows.size(), "series");
        for (const char* level : {"high", "fair", "low"})
            number(withConfidence(level), std::string(level) + " confidence", level);
        number(m_collection.count(JobOutcome::NothingFound), "without a lattice", "");
        number(m_collection.count(JobOutcome::Failed), "failed", "");
        const std::size_t waiting =
            m_collection.count(JobOutcome::Open) + m_collection.count(JobOutcome::Started);
        if (waiting > 0) number(waiting, "not done", "");
        m_text += "</p>\n";
    }

    void heads(std::initializer_list<const char*> names, bool isNumber) {
        for (const char* name : names)
            m_text += std::string("<th") + (isNumber ? " class=\"number\">" : ">") + name + "</th>";
    }

    void cell(const std::string& value, const char* kind = "number", const std::string& key = "") {
        m_text += std::string("<td class=\"") + kind + '"';
        if (!key.empty()) m_text += " data-key=\"" + key + '"';
        m_text += '>' + value + "</td>";
    }

    std::string thumbnail(const std::string& name) const {
        for (const auto& [path, kind] :
             {std::pair(m_folder.thumbnail(name), "png"), std::pair(m_folder.earlierThumbnail(name), "jpeg")})
            if (const std::string bytes = wholeFile(path).value_or(""); !bytes.empty())
                return std::string("<img alt=\"\" src=\"data:image/") + kind + ";base64," + base64(bytes) +
                       "\">";
        return "";
    }

    void crystals() {
        m_text +=
            "<h2>Crystals</h2>\n<p><input id=\"filter\" placeholder=\"words of a row\" aria-label=\"words of "
            "a "
            "row\"> <span class=\"faint\">A click on a head sorts. All of it is in crystals.csv and "
            "crystals.json.</span></p>\n<div class=\"scroll\"><table id=\"crystals\"><thead><tr>";
        heads({"", "crystal", "confidence", "type"}, false);
        heads({"a Å", "b Å", "c Å", "α °", "β °", "γ °", "volume Å³", "indexed %", "resolution Å",
               "complete %", "I/σ", "R_meas %"},
              true);
        heads({"space group"}, false);
        heads({"axis °"}, true);
        heads({"cluster"}, false);
        heads({"time s"}, true);
        m_text += "</tr></thead><tbody>\n";
        for (const CrystalRow& row : m_rows) {
            m_text += "<tr>";
            crystal(row);
            m_text += "</tr>\n";
        }
        m_text += "</tbody></table></div>\n";
    }

    void crystal(const CrystalRow& row) {
        const std::string link = "results/" + row.name + "/report.html";
        const auto linked = [&](const std::string& what) {
            return row.facts ? "<a href=\"" + escaped(link) + "\">" + what + "</a>" : what;
        };
        cell(row.facts ? linked(thumbnail(row.name)) : "", "");
        cell(linked(escaped(row.name)), "");
        if (!row.facts) {
            cell(std::string("<span class=\"light\"></span>") + nameOf(row.record.outcome), "", "9");
            for (int i = 0; i < 16; ++i)
                cell("");
            cell(row.record.seconds > 0.0 ? formatted("%.0f", row.record.seconds) : "");
            return;
        }
        const CrystalFacts& facts = *row.facts;
        const std::string level = escaped(facts.confidence);
        cell("<span class=\"light " + level + "\"></span>" + level, "",
             facts.confidence == "high"   ? "1"
             : facts.confidence == "fair" ? "2"
                                          : "3");
        cell(escaped(facts.bravais), "");
        for (std::size_t i = 0; i < 6; ++i)
            cell(withUncertainty(facts.cell.cell[i], facts.sigma[i]), "number",
                 formatted("%.5f", facts.cell.cell[i]));
        cell(formatted("%.1f", facts.volume));
        cell(formatted("%.0f", facts.reflections > 0 ? 100.0 * facts.indexed / facts.reflections : 0.0));
        cell(formatted("%.2f", facts.resolution));
        cell(formatted("%.0f", 100.0 * facts.completeness));
        cell(facts.iOverSigma ? formatted("%.1f", *facts.iOverSigma) : "");
        cell(facts.rMeas ? formatted("%.1f", 100.0 * *facts.rMeas) : "");
        cell(escaped(facts.spaceGroup), "");
        cell(formatted("%.2f", facts.axis));
        cell(row.cluster > 0 ? std::to_string(row.cluster) + (row.isOutlier ? " (alone)" : "") : "", "",
             std::to_string(row.cluster));
        cell(formatted("%.0f", row.record.seconds));
    }

    void troubles() {
        const auto isTrouble = [](const CrystalRow& row) { return !row.facts && !row.record.cause.empty(); };
        if (std::none_of(m_rows.begin(), m_rows.end(), isTrouble)) return;
        m_text += "<h2>Series without a cell</h2>\n<div class=\"scroll\"><table><thead><tr>";
        heads({"series", "outcome", "cause"}, false);
        m_text += "</tr></thead><tbody>\n";
        for (const CrystalRow& row : m_rows) {
            if (!isTrouble(row)) continue;
            m_text += "<tr>";
            cell(escaped(row.name), "");
            cell(nameOf(row.record.outcome), "");
            cell(escaped(row.record.cause), "wide");
            m_text += "</tr>\n";
        }
        m_text += "</tbody></table></div>\n";
    }

    /// The rows with a cell, in the order of the clustering.
    const std::vector<const CrystalRow*>& clustered() {
        if (m_clustered.empty())
            for (const CrystalRow& row : m_rows)
                if (row.facts) m_clustered.push_back(&row);
        return m_clustered;
    }

    static std::string cellText(const CrystalFacts& facts) {
        const std::array<double, 6>& c = facts.cell.cell;
        return formatted("%.3f %.3f %.3f  %.2f %.2f %.2f", c[0], c[1], c[2], c[3], c[4], c[5]);
    }

    void clusters() {
        const std::vector<CellCluster>& clusters = m_collection.clustering.clusters;
        if (clusters.empty()) return;
        m_text +=
            "<h2>Cells</h2>\n<p class=\"faint\">Clusters of the reduced cells: the strain that takes one "
            "lattice to the other, about the largest relative change of a length, up to " +
            formatted("%.1f %%", 100.0 * m_collection.cut) +
            " (--cut), average linkage; compared among the images of the reduced lattice in S6 (Andrews, "
            "Bernstein and Sauter 2019). The middle is the crystal nearest to all others.</p>\n"
            "<div class=\"scroll\"><table><thead><tr>";
        heads({"cluster", "crystals"}, true);
        heads({"middle", "type", "cell"}, false);
        heads({"spread %"}, true);
        m_text += "</tr></thead><tbody>\n";
        constexpr std::size_t kMostClusters = 200;
        for (std::size_t i = 0; i < std::min(clusters.size(), kMostClusters); ++i) {
            const CrystalRow& middle = *clustered()[clusters[i].middle];
            m_text += "<tr>";
            cell(std::to_string(i + 1));
            cell(std::to_string(clusters[i].crystals.size()));
            cell(escaped(middle.name), "");
            cell(escaped(middle.facts->bravais), "");
            cell(cellText(*middle.facts), "");
            cell(clusters[i].crystals.size() > 1 ? formatted("%.2f", 100.0 * clusters[i].spread) : "");
            m_text += "</tr>\n";
        }
        m_text += "</tbody></table></div>\n";
        if (clusters.size() > kMostClusters)
            m_text += "<p class=\"faint\">" + std::to_string(clusters.size() - kMostClusters) +
                      " more are in crystals.json.</p>\n";
        std::string alone;
        for (const std::size_t crystal : m_collection.clustering.outliers)
            alone.append(alone.empty() ? "" : ", ").append(escaped(clustered()[crystal]->name));
        if (!alone.empty()) m_text += "<p>Alone in their cluster: " + alone + "</p>\n";
    }

    /// What a branch of the dendrogram holds: a crystal, or a join by its number.
    struct Branch {
        std::size_t node = 0;
        double distance = 0.0;
        friend bool operator<(const Branch& a, const Branch& b) { return a.distance < b.distance; }
    };

    void dendrogram() {
        const std::vector<ClusterJoin>& joins = m_collection.clustering.joins;
        const std::size_t crystals = clustered().size();
        if (joins.empty()) return;
        // The branches that are shown: the widest are opened until there are enough.
        std::vector<bool> isOpen(crystals + joins.size()), isInner(crystals + joins.size());
        for (const ClusterJoin& join : joins)
            isInner[join.first] = isInner[join.second] = true;
        std::priority_queue<Branch> closed;
        std::vector<std::size_t> roots;
        for (std::size_t i = 0; i < joins.size(); ++i)
            if (!isInner[crystals + i]) {
                roots.push_back(crystals + i);
                closed.push({crystals + i, joins[i].distance});
            }
        std::size_t leaves = roots.size();
        while (!closed.empty() && leaves < kMostLeaves) {
            const ClusterJoin& join = joins[closed.top().node - crystals];
            isOpen[closed.top().node] = true;
            closed.pop();
            ++leaves;
            for (const std::size_t node : {join.first, join.second})
                if (node >= crystals) closed.push({node, joins[node - crystals].distance});
        }
        draw(roots, isOpen, leaves);
    }

    static constexpr double kWidth = 900.0, kLabels = 230.0, kLeafHeight = 16.0, kTop = 24.0;

    void draw(const std::vector<std::size_t>& roots, const std::vector<bool>& isOpen, std::size_t leaves) {
        const double height = kTop + kLeafHeight * (static_cast<double>(leaves) + 1.0);
        const double farthest = std::max(m_collection.clustering.joins.back().distance, m_collection.cut);
        // Square roots, so that what is near the cut is seen beside what has nothing in common.
        const auto across = [&](double distance) {
            return 10.0 + (kWidth - kLabels - 20.0) * (1.0 - std::sqrt(distance / farthest));
        };
        m_text +=
            formatted("<svg viewBox=\"0 0 %.0f %.0f\" role=\"img\" aria-label=\"dendrogram of the cells\">\n",
                      kWidth, height);
        for (const double distance : {0.003, 0.01, 0.03, 0.1, 0.3})
            if (distance <= farthest)
                m_text += formatted(
                    "<line class=\"rule\" x1=\"%.1f\" x2=\"%.1f\" y1=\"%.0f\" y2=\"%.1f\"/><text "
                    "x=\"%.1f\" y=\"14\" text-anchor=\"middle\">%g %%</text>\n",
                    across(distance), across(distance), kTop, height, across(distance), 100.0 * distance);
        m_text += formatted("<line class=\"cut\" x1=\"%.1f\" x2=\"%.1f\" y1=\"%.0f\" y2=\"%.1f\"/>\n",
                            across(m_collection.cut), across(m_collection.cut), kTop, height);
        double next = kTop + kLeafHeight;
        const std::function<double(std::size_t)> drawNode = [&](std::size_t node) {
            if (!isOpen[node]) return drawLeaf(node, next, across);
            const ClusterJoin& join = m_collection.clustering.joins[node - clustered().size()];
            const double first = drawNode(join.first), second = drawNode(join.second);
            const double x = across(join.distance);
            m_text +=
                formatted("<path class=\"line\" d=\"M%.1f %.1fH%.1fV%.1fH%.1f\"/>\n",
                          across(distanceOf(join.first)), first, x, second, across(distanceOf(join.second)));
            return 0.5 * (first + second);
        };
        for (const std::size_t root : roots)
            drawNode(root);
        m_text += "</svg>\n";
    }

    double distanceOf(std::size_t node) {
        return node < clustered().size() ? 0.0
                                         : m_collection.clustering.joins[node - clustered().size()].distance;
    }

    double drawLeaf(std::size_t node, double& next, const std::function<double(double)>& across) {
        const double y = next;
        next += kLeafHeight;
        std::string label;
        if (node < clustered().size()) {
            const CrystalRow& row = *clustered()[node];
            label = escaped(row.name.size() > 34 ? row.name.substr(0, 32) + "…" : row.name) +
                    formatted(" (%d)", row.cluster);
        } else {
            label = std::to_string(m_collection.clustering.joins[node - clustered().size()].crystals) +
                    " crystals";
        }
        m_text += formatted(
            "<line class=\"line\" x1=\"%.1f\" x2=\"%.1f\" y1=\"%.1f\" y2=\"%.1f\"/><text x=\"%.1f\" "
            "y=\"%.1f\">%s</text>\n",
            across(distanceOf(node)), across(0.0), y, y, across(0.0) + 6.0, y + 4.0, label.c_str());
        return y;
    }

    /// A quantity of the instrument by series.
    struct Value {
        double when = 0.0;  ///< hours
        double value = 0.0;
        double sigma = 0.0;
        bool isElsewhere = false;
    };

    void session() {
        const InstrumentTrend& trend = m_collection.trend;
        if (trend.rows.empty()) return;
        m_text +=
            "<h2>Microscope</h2>\n<p class=\"faint\">Axis and distortion of the series whose lattice has "
            "high or fair confidence, over the time at which their files were last written.";
        if (!trend.remark.empty()) m_text += " Left out: " + escaped(trend.remark) + '.';
        m_text += "</p>\n";
        if (trend.common) common(*trend.common);
        m_text += "<div class=\"plots\">\n";
        plot("axis_deg", "tilt axis, degrees", [](const CrystalFacts& facts) {
            return std::optional(Value{0.0, facts.axis, facts.axisSigma, false});
        });
        for (const auto& [term, name] :
             {std::pair(InstrumentTerm::Radial, "radial distortion, % at half the width"),
              std::pair(InstrumentTerm::TiltScale, "scale of the tilts, % above 1")})
            plot(name, name, [term = term](const CrystalFacts& facts) { return termOf(facts, term); });
        plot("ellipse", "ellipse, %", ellipseOf);
        m_text += "</div>\n";
    }

    static std::optional<Value> termOf(const CrystalFacts& facts, InstrumentTerm term) {
        const RefinedInstrument& instrument = facts.geometry.instrument;
        if (!instrument.uses(term)) return std::nullopt;
        return Value{0.0, 100.0 * instrument.model[term],
                     100.0 * instrument.sigma[static_cast<std::size_t>(term)], false};
    }
    static std::optional<Value> ellipseOf(const CrystalFacts& facts) {
        const auto c = termOf(facts, InstrumentTerm::EllipseCosine);
        const auto s = termOf(facts, InstrumentTerm::EllipseSine);
        if (!c || !s) return std::nullopt;
        return Value{0.0, std::hypot(c->value, s->value), std::max(c->sigma, s->sigma), false};
    }

    static std::string nameOfTerm(const std::string& key) {
        static const std::map<std::string, const char*> kNames = {
            {"axis_angle_deg", "tilt axis, degrees"},
            {"ellipse", "ellipse, lengths along it too long by"},
            {"ellipse_azimuth_deg", "ellipse, degrees from x towards y"},
            {"radial", "radial displacement at half the width"},
            {"tilt_scale", "true over stated tilts"},
            {"axis_tilt_deg", "tilt axis out of the frame's plane, degrees"}};
        const auto name = kNames.find(key);
        return name == kNames.end() ? key : name->second;
    }

    /// With a digit more than the uncertainty of the mean has: less says nothing.
    static std::string spreadText(double spread, double sigma) {
        const bool isKnown = sigma > 0.0 && std::isfinite(sigma);
        const int digits =
            isKnown ? std::clamp(1 - static_cast<int>(std::floor(std::log10(sigma))), 1, 8) : 4;
        return formatted("%.*f", digits, spread);
    }

    void common(const CombinedCalibration& combination) {
        m_text += "<div class=\"scroll\"><table><thead><tr>";
        heads({"in common"}, false);
        heads({"value", "spread of the series", "series"}, true);
        m_text += "</tr></thead><tbody>\n";
        for (const auto& [key, value] : valuesOf(combination.calibration)) {
            const auto scatter = std::find_if(combination.scatters.begin(), combination.scatters.end(),
                                              [&key = key](const auto& one) { return one.key == key; });
            m_text += "<tr>";
            cell(nameOfTerm(key), "");
            cell(withUncertainty(value.value, value.sigma));
            cell(scatter == combination.scatters.end() ? "" : spreadText(scatter->scatter, value.sigma));
            cell(scatter == combination.scatters.end() ? "" : std::to_string(scatter->series));
            m_text += "</tr>\n";
        }
        const std::string folder = shellWord(m_folder.path().string());
        m_text +=
            "</tbody></table></div>\n<p>Where all series come from one microscope, what they have in common "
            "may stand for all of them:</p>\n<code>" +
            escaped("vrk batch SERIES -o " + folder + " -- --distortion " +
                    shellWord(m_folder.instrument().string())) +
            "</code>\n";
        if (const auto& axis = combination.calibration.axisAngle)
            m_text +=
                "<p>or the axis alone:</p>\n<code>" +
                escaped("vrk batch SERIES -o " + folder + formatted(" -- --tilt-axis %.2f", axis->value)) +
                "</code>\n";
    }

    void plot(const std::string& name, const char* title,
              const std::function<std::optional<Value>(const CrystalFacts&)>& source) {
        const InstrumentTrend& trend = m_collection.trend;
        std::vector<Value> values;
        for (const bool elsewhere : {false, true})
            for (const std::size_t row : elsewhere ? trend.elsewhere : trend.rows)
                if (std::optional<Value> value = source(*m_rows[row].facts)) {
                    value->when = static_cast<double>(m_rows[row].record.stamp.modified) / 3.6e12;
                    value->isElsewhere = elsewhere;
                    values.push_back(*value);
                }
        if (values.size() < 2) return;
        std::optional<double> mean;
        if (name == "axis_deg" && trend.common && trend.common->calibration.axisAngle)
            mean = trend.common->calibration.axisAngle->value;
        // t and t + 180 are the same line.
        const double middle = mean.value_or(values.front().value);
        if (name == "axis_deg")
            for (Value& value : values)
                value.value = middle + std::remainder(value.value - middle, 180.0);
        drawPlot(values, mean, title);
    }

    /// In which so many hours are told: what it has of an hour, and its name.
    static std::pair<double, const char*> unitOf(double hours) {
        if (hours > 72.0) return {24.0, "days"};
        if (hours > 2.0) return {1.0, "h"};
        if (hours > 2.0 / 60.0) return {1.0 / 60.0, "min"};
        return {1.0 / 3600.0, "s"};
    }

    void drawPlot(const std::vector<Value>& values, std::optional<double> mean, const char* title) {
        double first = std::numeric_limits<double>::infinity(), last = -first, low = first, high = -first;
        std::vector<double> sigmas;
        for (const Value& value : values)
            sigmas.push_back(value.sigma);
        // One value that is hardly known does not hide what the others show.
        const double longest = 3.0 * medianOf(std::move(sigmas));
        for (const Value& value : values) {
            first = std::min(first, value.when);
            last = std::max(last, value.when);
            if (value.isElsewhere) continue;
            low = std::min(low, value.value - std::min(value.sigma, longest));
            high = std::max(high, value.value + std::min(value.sigma, longest));
        }
        const auto [unit, unitName] = unitOf(last - first);
        const double margin = std::max(0.1 * (high - low), 1e-3);
        low -= margin;
        high += margin;
        constexpr double kLeft = 60.0, kRight = 590.0, kUp = 10.0, kDown = 230.0;
        const auto x = [&](double when) {
            return last > first ? kLeft + 10.0 + (kRight - kLeft - 20.0) * (when - first) / (last - first)
                                : 0.5 * (kLeft + kRight);
        };
        const auto y = [&](double value) {
            return std::clamp(kDown - (kDown - kUp) * (value - low) / (high - low), kUp, kDown);
        };
        m_text += std::string("<figure><h3>") + title +
                  "</h3><svg viewBox=\"0 0 600 260\" role=\"img\" aria-label=\"" + title + "\">\n";
        for (const double part : {0.0, 0.5, 1.0}) {
            const double value = low + part * (high - low);
            m_text += formatted(
                "<line class=\"rule\" x1=\"%.0f\" x2=\"%.0f\" y1=\"%.1f\" y2=\"%.1f\"/><text "
                "x=\"%.0f\" y=\"%.1f\" text-anchor=\"end\">%.4g</text>\n",
                kLeft, kRight, y(value), y(value), kLeft - 6.0, y(value) + 4.0, value);
            if (part == 0.0 || last > first)
                m_text += formatted("<text x=\"%.1f\" y=\"252\" text-anchor=\"middle\">%.3g %s</text>\n",
                                    x(first + part * (last - first)), part * (last - first) / unit, unitName);
        }
        if (mean)
            m_text += formatted("<line class=\"mean\" x1=\"%.0f\" x2=\"%.0f\" y1=\"%.1f\" y2=\"%.1f\"/>\n",
                                kLeft, kRight, y(*mean), y(*mean));
        for (const Value& value : values)
            m_text += formatted(
                "<line class=\"bar\" x1=\"%.1f\" x2=\"%.1f\" y1=\"%.1f\" y2=\"%.1f\"/><circle "
                "class=\"%s\" cx=\"%.1f\" cy=\"%.1f\" r=\"2.5\"/>\n",
                x(value.when), x(value.when), y(value.value - value.sigma), y(value.value + value.sigma),
                value.isElsewhere ? "odd" : "", x(value.when), y(value.value));
        m_text += "</svg></figure>\n";
    }

    const Collection& m_collection;
    const std::vector<CrystalRow>& m_rows;
    const BatchFolder& m_folder;
    std::vector<const CrystalRow*> m_clustered;
    std::string m_text;
};

}  // namespace

std::string batchPage(const Collection& collection, const BatchFolder& folder) {
    return Page(collection, folder).text();
}

}  // namespace vrk
