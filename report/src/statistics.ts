// Numbers by frame and by resolution, and the symmetry of the intensities.

import type { Result, RockingCurve, Summary } from './data';
import { make, makeSvg, table } from './dom';
import { fixed, hklText, percent, significant } from './format';
import { plot } from './plots';

const spacingText = (s: number): string => (s > 0 ? `${(1 / s).toFixed(2)}` : '\u221e');

function framePlots(summary: Summary): HTMLElement[] {
    const { centres, intensities } = summary;
    const xLabel = 'tilt (\u00b0)';
    const plots: HTMLElement[] = [];
    const frames = intensities?.frames as Summary[] | undefined;
    if (frames?.length) {
        const x = frames.map((frame) => frame.tilt);
        const of = (key: string) => frames.map((frame) => frame[key] as number);
        plots.push(
            plot({ title: 'Spots', xLabel, x, yLow: 0, curves: [
                { name: 'predicted', values: of('predicted'), colour: 0 },
                { name: 'observed', values: of('observed'), colour: 1 }] }),
            plot({ title: 'Counts in all spots', xLabel, x, yLow: 0, curves: [{ name: 'counts', values: of('counts'), colour: 0 }] }),
            plot({ title: 'Scale: observed over common intensity', xLabel, x, yLow: 0, yHigh: 1, curves: [
                { name: 'at low resolution', values: of('scale'), colour: 0 },
                { name: `at ${significant(intensities.resolution.d_min, 3)} \u00c5`, values: of('scale_at_d_min'), colour: 1 }] }));
    }
    if (centres?.length) {
        const mean = (key: string) => centres.reduce((sum: number, one: Summary) => sum + one[key], 0) / centres.length;
        const [x0, y0] = [mean('x'), mean('y')];
        const odd = centres.filter((one: Summary) => one.jump || one.doubtful) as Summary[];
        plots.push(plot({
            title: `Direct beam, from its mean at ${fixed(x0, 2)}, ${fixed(y0, 2)} pixels`, xLabel, x: centres.map((one: Summary) => one.tilt),
            yLow: -0.5, yHigh: 0.5, curves: [
                { name: 'x', values: centres.map((one: Summary) => one.x - x0), colour: 0 },
                { name: 'y', values: centres.map((one: Summary) => one.y - y0), colour: 1 },
                ...(odd.length > 0
                    ? [{ name: 'jump or doubtful', values: centres.map((one: Summary) => (odd.includes(one) ? one.x - x0 : null)), colour: 3, points: true, line: false }]
                    : [])],
        }));
    }
    return plots;
}

function shellPlots(result: Result): HTMLElement[] {
    const { summary, evaluation } = result;
    const plots: HTMLElement[] = [];
    const xLabel = 'd (\u00c5)';
    const shells = summary.intensities?.shells as Summary[] | undefined;
    if (shells?.length) {
        const x = shells.map((shell) => 0.5 * ((shell.d_max > 0 ? 1 / shell.d_max : 0) + 1 / shell.d_min));
        const of = (key: string, factor = 1) => shells.map((shell) => factor * (shell[key] as number));
        const points = true;
        plots.push(
            plot({ title: 'Completeness of the unique reflections (%)', xLabel, x, xText: spacingText, yLow: 0, yHigh: 100, curves: [
                { name: 'completeness', values: of('completeness', 100), colour: 0, points }] }),
            plot({ title: 'Mean I/\u03c3', xLabel, x, xText: spacingText, yLow: 0, curves: [{ name: 'I/\u03c3', values: of('i_over_sigma'), colour: 0, points }] }),
            plot({ title: 'Agreement of equivalents', xLabel, x, xText: spacingText, yLow: 0, yHigh: 1, curves: [
                { name: 'CC1/2', values: of('cc_half'), colour: 0, points },
                { name: 'R_int', values: of('r_int'), colour: 1, points },
                { name: 'R_meas', values: of('r_meas'), colour: 2, points, dash: [6, 4] }] }));
    }
    const nodes = summary.completeness?.shells as Summary[] | undefined;
    const displaced = evaluation?.displacements?.shells as Summary[] | undefined;
    if (nodes?.length)
        plots.push(plot({ title: 'Nodes of the recorded part that were found (%)', xLabel, x: nodes.map((shell) => 1 / shell.spacing), xText: spacingText,
            yLow: 0, yHigh: 100, curves: [{ name: 'found', values: nodes.map((shell) => (shell.nodes > 0 ? (100 * shell.found) / shell.nodes : null)), colour: 0, points: true }] }));
    if (displaced?.length) {
        const x = displaced.map((shell) => (shell.resolution > 0 ? 1 / shell.resolution : shell.to));
        plots.push(
            plot({ title: 'Reflections near a node (%), of the list that gave the lattice', xLabel, x, xText: spacingText, yLow: 0, yHigh: 100, curves: [
                { name: 'indexed', values: displaced.map((shell) => (shell.reflections > 0 ? (100 * shell.indexed) / shell.reflections : null)), colour: 0, points: true }] }),
            plot({ title: 'Displacement from the nodes (voxels)', xLabel, x, xText: spacingText, yLow: 0, curves: [
                { name: 'root mean square', values: displaced.map((shell) => (shell.indexed > 0 ? shell.rms : null)), colour: 0, points: true },
                { name: 'mean, outwards', values: displaced.map((shell) => (shell.indexed > 0 ? shell.outward : null)), colour: 1, points: true }] }));
    }
    const wilson = summary.intensities?.wilson;
    if (wilson?.bins?.length) {
        const x = wilson.bins.map((bin: Summary) => bin.s2) as number[];
        const curves = [{ name: 'unique reflections', values: wilson.bins.map((bin: Summary) => bin.ln_i) as number[], colour: 0, points: true, line: false }];
        const line = { name: 'line', values: x.map((s2) => wilson.ln_scale - 2 * wilson.b * s2), colour: 1, points: false, line: true };
        plots.push(plot({ title: `Wilson plot: ln of the mean intensity, B = ${fixed(wilson.b, 1)} \u00c5\u00b2 with the atoms in it`, xLabel: '1 / (2 d)\u00b2 (1/\u00c5\u00b2)', x,
            curves: wilson.ln_scale === undefined ? curves : [...curves, line] }));
    }
    return plots;
}

function shellTable(summary: Summary): HTMLElement | null {
    const shells = summary.intensities?.shells as Summary[] | undefined;
    if (!shells?.length) return null;
    const row = (shell: Summary, name: string) => [name, shell.observations, shell.unique, shell.possible, fixed(100 * shell.completeness, 1),
        fixed(shell.redundancy, 2), fixed(shell.i_over_sigma, 1), fixed(shell.r_int, 3), fixed(shell.r_meas, 3), fixed(shell.cc_half, 3)].map(String);
    const range = (shell: Summary) => `${shell.d_max > 0 ? fixed(shell.d_max, 2) : '\u221e'} \u2013 ${fixed(shell.d_min, 2)}`;
    return table('By resolution', ['d (\u00c5)', 'observations', 'unique', 'possible', 'complete (%)', 'redundancy', 'I/\u03c3', 'R_int', 'R_meas', 'CC1/2'],
        [...shells.map((shell) => row(shell, range(shell))), row(summary.intensities.overall, 'all')]);
}

/** Counts with their uncertainties over the tilt, and the fitted curve. */
function curvePicture(curve: RockingCurve): HTMLElement {
    const [width, height, left, bottom, top] = [250, 150, 8, 22, 6];
    const known = curve.counts.map((value, i) => (value === null ? [] : [value + (curve.sigma[i] ?? 0), value - (curve.sigma[i] ?? 0)])).flat();
    const high = Math.max(...known, ...curve.fitted, 1);
    const low = Math.min(0, ...known);
    const [first, last] = [curve.tilts[0], curve.tilts[curve.tilts.length - 1]];
    const x = (tilt: number) => left + ((width - 2 * left) * (tilt - first)) / (last - first || 1);
    const y = (counts: number) => top + (height - top - bottom) * (1 - (counts - low) / (high - low));
    const svg = makeSvg('svg', { viewBox: `0 0 ${width} ${height}`, role: 'img', 'aria-label': `Rocking curve of ${hklText(curve.hkl)}` },
        makeSvg('line', { x1: left, x2: width - left, y1: y(0), y2: y(0), class: 'zero' }),
        makeSvg('polyline', { points: curve.tilts.map((tilt, i) => `${x(tilt).toFixed(1)},${y(curve.fitted[i]).toFixed(1)}`).join(' '), class: 'fitted' }),
        ...curve.tilts.map((tilt, i) => {
            const counts = curve.counts[i];
            const sigma = curve.sigma[i] ?? 0;
            if (counts === null) return null;
            return makeSvg('g', { class: 'measured' },
                makeSvg('line', { x1: x(tilt), x2: x(tilt), y1: y(counts - sigma), y2: y(counts + sigma) }),
                makeSvg('circle', { cx: x(tilt), cy: y(counts), r: 3 }));
        }),
        makeSvg('text', { x: left, y: height - 5 }, `${fixed(first, 1)}\u00b0`),
        makeSvg('text', { x: width - left, y: height - 5, 'text-anchor': 'end' }, `${fixed(last, 1)}\u00b0`));
    return make('figure', { class: 'curve' },
        make('figcaption', {}, make('strong', {}, hklText(curve.hkl)), make('span', {}, `${fixed(curve.d, 2)} \u00c5, I/\u03c3 ${significant(curve.i_over_sigma, 3)}`)), svg);
}

function symmetryTables(summary: Summary): HTMLElement[] {
    const { intensities } = summary;
    if (!intensities) return [];
    const groups = intensities.space_groups;
    const tables: HTMLElement[] = [];
    tables.push(table('Laue groups', ['group', 'class', 'evidence (nats)', 'correlation', 'R_meas'],
        intensities.laue.candidates.map((one: Summary) => [one.group, one.class, fixed(one.evidence, 1), fixed(one.correlation, 3), fixed(one.r_meas, 3)])));
    tables.push(table(`Space groups; <|E\u00b2 \u2212 1|> = ${fixed(groups.e_square_minus_one, 3)} suggests ${groups.centrosymmetric_by_statistics ? 'an inversion centre' : 'no inversion centre'}`,
        ['number', 'symbol', 'inversion centre', 'evidence (nats)'],
        groups.candidates.map((one: Summary) => [String(one.number), one.symbol, one.centrosymmetric ? 'yes' : 'no', fixed(one.evidence, 1)])));
    tables.push(groups.conditions.length > 0
        ? table('Absences', ['reflections', 'condition', 'holds', 'evidence (nats)', 'forbidden', 'their I/\u03c3', 'allowed', 'their I/\u03c3', 'forbidden / ordinary intensity'],
            groups.conditions.map((one: Summary) => [one.reflections, one.condition, one.forbidden === 0 ? 'not measured' : one.evidence > 0 ? 'yes' : 'no',
                fixed(one.evidence, 1), String(one.forbidden), fixed(one.forbidden_i_over_sigma, 1), String(one.allowed), fixed(one.allowed_i_over_sigma, 1), fixed(one.ratio, 3)]))
        : make('p', { class: 'faint' }, 'No space group of the class and centring has absences.'));
    return tables;
}

export function statisticsGroup(result: Result): HTMLElement {
    const { summary, curves } = result;
    const part = (name: string, content: (HTMLElement | null)[], kind: string) =>
        content.some(Boolean) ? make('div', {}, make('h3', {}, name), make('div', { class: kind }, content)) : null;
    return make('div', {},
        summary.intensities ? null : make('p', { class: 'faint' }, 'No intensities were measured on the frames.'),
        part('By frame', framePlots(summary), 'plots'),
        part('By resolution', shellPlots(result), 'plots'),
        shellTable(summary),
        part('Rocking curves: the strongest reflections, and some drawn at random', (curves ?? []).map(curvePicture), 'curves'),
        part('Symmetry', symmetryTables(summary), 'tables'),
        summary.intensities ? make('p', { class: 'faint' }, `R_int of Friedel mates alone: ${fixed(summary.intensities.friedel_r_int, 3)}. `,
            `Outliers: ${summary.intensities.reflections.outliers} of ${summary.intensities.reflections.observations} observations (${
                percent(summary.intensities.reflections.outliers / Math.max(1, summary.intensities.reflections.observations), 1)}).`) : null);
}
