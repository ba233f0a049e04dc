// Several results beside each other.

import type { Result, Summary } from './data';
import { make, table } from './dom';
import { fixed, percent } from './format';
import { plot } from './plots';
import { cellTexts, lightOf } from './verdict';

const kSigns = ['a (\u00c5)', 'b (\u00c5)', 'c (\u00c5)', '\u03b1 (\u00b0)', '\u03b2 (\u00b0)', '\u03b3 (\u00b0)'];

const kRows: [string, (summary: Summary) => string][] = [
    ['verdict', (s) => lightOf(s).word],
    ['lattice', (s) => s.cell.conventional.bravais],
    ...kSigns.map((sign, i): [string, (summary: Summary) => string] => [sign, (s) => cellTexts(s)[i]]),
    ['volume (\u00c5\u00b3)', (s) => fixed(s.cell.conventional.volume, 1)],
    ['indexed', (s) => percent(s.reflections.fraction_indexed, 1)],
    ['reflections', (s) => String(s.reflections.found)],
    ['nodes found', (s) => percent(s.completeness.core_share)],
    ['residual (voxels)', (s) => fixed(s.reflections.residual_px, 2)],
    ['tilt axis (\u00b0)', (s) => fixed(s.tilt_axis.refined_deg, 2)],
    ['to (\u00c5)', (s) => fixed(s.intensities?.resolution.d_min, 2)],
    ['complete', (s) => percent(s.intensities?.overall.completeness)],
    ['I/\u03c3', (s) => fixed(s.intensities?.overall.i_over_sigma, 1)],
    ['R_int', (s) => fixed(s.intensities?.overall.r_int, 3)],
    ['CC1/2', (s) => fixed(s.intensities?.overall.cc_half, 3)],
    ['space group', (s) => s.intensities?.space_groups.candidates[0]?.symbol ?? ''],
    ['crystals', (s) => String(s.crystals?.length ?? 1)],
    ['warnings', (s) => String(s.warnings.length)],
    ['doubts', (s) => s.confidence.reasons.join('; ')],
];

/** All shells of all results on one axis, each result a curve. */
function curves(results: Result[], title: string, key: string, factor: number, yHigh?: number): HTMLElement | null {
    const shells = results.map((result) => (result.summary.intensities?.shells ?? []) as Summary[]);
    const middle = (shell: Summary) => 0.5 * ((shell.d_max > 0 ? 1 / shell.d_max : 0) + 1 / shell.d_min);
    const x = Array.from(new Set(shells.flat().map(middle))).sort((a, b) => a - b);
    if (x.length === 0) return null;
    return plot({
        title, xLabel: 'd (\u00c5)', x, xText: (s) => (s > 0 ? (1 / s).toFixed(2) : '\u221e'), yLow: 0, yHigh,
        curves: results.map((result, i) => {
            const own = shells[i].map((shell): [number, number] => [middle(shell), factor * shell[key]]);
            return { name: result.name, colour: i % 6, points: true, dash: i >= 6 ? [6, 4] : undefined, values: x.map((place) => between(own, place)) };
        }),
    });
}

/** On the line between the neighbouring points; null beyond them. */
function between(points: [number, number][], x: number): number | null {
    for (let i = 1; i < points.length; ++i) {
        const [[x0, y0], [x1, y1]] = [points[i - 1], points[i]];
        if (x >= x0 && x <= x1) return y0 + ((y1 - y0) * (x - x0)) / (x1 - x0 || 1);
    }
    return null;
}

export function comparison(results: Result[]): HTMLElement {
    return make('div', {},
        table(`${results.length} results`, ['', ...results.map((result) => result.name)],
            kRows.map(([name, value]) => [name, ...results.map((result) => value(result.summary))])),
        make('div', { class: 'plots' },
            curves(results, 'Mean I/\u03c3', 'i_over_sigma', 1), curves(results, 'CC1/2', 'cc_half', 1, 1),
            curves(results, 'R_int', 'r_int', 1), curves(results, 'Completeness (%)', 'completeness', 100, 100)));
}
