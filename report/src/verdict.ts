// The first screen: what it is, whether it is right, and what to do next.

import type { CellNumbers, Result, Summary } from './data';
import { copyButton, make } from './dom';
import { counted, fixed, percent, significant, withUncertainty } from './format';

const kNames: (keyof CellNumbers)[] = ['a', 'b', 'c', 'alpha', 'beta', 'gamma'];
const kSigns = ['a', 'b', 'c', '\u03b1', '\u03b2', '\u03b3'];

export interface Light {
    state: 'right' | 'check' | 'wrong';
    word: string;
    sentence: string;
}

/** Only the distortion of the frames is open: there is a crystal, but its cell is not that of the answer. */
const isDistorted = ({ confidence }: Summary): boolean =>
    confidence?.level === 'low' && (confidence.lattice ?? 'low') !== 'low';

export function lightOf(summary: Summary): Light {
    switch (summary.confidence?.level) {
        case 'high': return { state: 'right', word: 'Right', sentence: 'Nothing speaks against this lattice.' };
        case 'fair': return { state: 'check', word: 'Check', sentence: 'Probably right; look at what is doubted below.' };
        default: return {
            state: 'wrong', word: 'Wrong?', sentence: isDistorted(summary)
                ? 'There is such a crystal, but its edges and angles may be off by far more than their uncertainties.'
                : 'Hardly more than a guess: do not use it as it is.',
        };
    }
}

/** The numbers of the intensities where they were refined on the frames. */
function bestCell(summary: Summary): [CellNumbers, CellNumbers] {
    const measured = summary.intensities;
    return measured ? [measured.cell, measured.esd] : [summary.cell.conventional, summary.cell.esd.conventional];
}

export function cellTexts(summary: Summary): string[] {
    const [cell, esd] = bestCell(summary);
    return kNames.map((name, i) => {
        const value = cell[name] as number;
        const sigma = esd[name] as number;
        if (sigma > 0) return withUncertainty(value, sigma);
        return i < 3 ? significant(value, 5) : String(Number(value.toFixed(3)));
    });
}

const kSources: Record<string, string> = {
    option: 'as it was given on the command line',
    calibration: 'from the calibration of the instrument',
    header: 'as the series states it',
    search: 'found by a search',
    assumed: 'assumed along y, as nothing states it',
    refined: 'by the reflections themselves',
};

/** The reflections put the axis somewhere else than the volume was built with. */
const axisIsElsewhere = ({ tilt_axis: axis }: Summary): boolean => Math.abs(axis.refined_deg - axis.angle_deg) > 0.25;

function axisSentence(summary: Summary): string {
    const axis = summary.tilt_axis;
    const sigma = axis.refined_esd_deg ?? axis.uncertainty_deg ?? 0;
    const stated = axis.stated_deg === undefined ? '' : `; the series said ${fixed(axis.stated_deg, 2)}\u00b0`;
    const source = kSources[axis.source] ?? axis.source;
    const value = sigma > 0 ? withUncertainty(axis.refined_deg, sigma) : fixed(axis.refined_deg, 2);
    return axisIsElsewhere(summary)
        ? `${value}\u00b0 from y by the reflections; the volume was built with ${fixed(axis.angle_deg, 2)}\u00b0, ${source}`
        : `${value}\u00b0 from y, ${source}${stated}`;
}

function distortionSentence(summary: Summary): string {
    const { refined, terms, known } = summary.instrument;
    const texts: string[] = [];
    const termOf = (name: string) => terms?.find((term: Summary) => term.name === name)?.value as number | undefined;
    const cosine = termOf('ellipse_cos');
    const sine = termOf('ellipse_sin');
    if (cosine !== undefined || sine !== undefined)
        texts.push(`ellipse of ${percent(Math.hypot(cosine ?? 0, sine ?? 0), 2)}`);
    const radial = termOf('radial');
    if (radial !== undefined) texts.push(`radial ${percent(radial, 2)} at half a frame`);
    const tilts = termOf('tilt_scale');
    if (tilts !== undefined) texts.push(`tilts ${percent(Math.abs(tilts), 2)} ${tilts > 0 ? 'larger' : 'smaller'} than stated`);
    if (known) texts.push(`known from ${known.file ?? 'a calibration'}`);
    if (texts.length > 0) return texts.join(', ');
    return refined ? 'none that the reflections ask for' : 'not looked at: too few reflections';
}

function rivalSentence(summary: Summary): string {
    const rival = summary.confidence.runner_up;
    if (!rival) return 'no other lattice';
    const share = rival.evidence / summary.confidence.evidence;
    return `the next lattice (volume \u00d7 ${significant(rival.volume_ratio, 3)}) has ${percent(share)} of the evidence`;
}

/** What the answer rests on, a line each. */
function facts(summary: Summary): [string, string][] {
    const { reflections, completeness, confidence, handedness, intensities } = summary;
    const rows: [string, string][] = [
        ['Indexed', `${reflections.indexed} of ${reflections.found} reflections (${percent(reflections.fraction_indexed, 1)}); by chance ${
            percent(confidence.fraction_by_chance, 1)}`],
        ['Tilt axis', axisSentence(summary)],
        ['Completeness', `${percent(completeness.core_share)} of the nodes in the recorded part of reciprocal space were found, ${
            counted(completeness.nodes, 'node')} to ${significant(completeness.limit, 3)} \u00c5 in all`],
        ['Rivals', rivalSentence(summary)],
        ['Distortion', distortionSentence(summary)],
        ['Handedness', handedness.sense === 0 ? 'not looked at' : handedness.decided ? (handedness.sense > 0 ? '+1' : '\u22121') : 'undecided'],
    ];
    if (intensities) {
        const all = intensities.overall;
        rows.push(['Intensities', `${intensities.reflections.unique} unique to ${significant(intensities.resolution.d_min, 3)} \u00c5, ${
            percent(all.completeness)} complete, I/\u03c3 ${fixed(all.i_over_sigma, 1)}, R_int ${fixed(all.r_int, 3)}, CC1/2 ${fixed(all.cc_half, 3)}`]);
        const group = intensities.space_groups.candidates;
        rows.push(['Symmetry', `Laue class ${intensities.laue.class}${
            group.length > 0 ? `, space group ${group.slice(0, 3).map((one: Summary) => one.symbol).join(' or ')}` : ''}`]);
    }
    const others = (summary.crystals ?? []).slice(1);
    if (others.length > 0)
        rows.push(['Crystals', `${others.length + 1}: ${summary.crystals.map((one: Summary) => percent(one.strong_share)).join(', ')} of the strong reflections`]);
    return rows;
}

const quoted = (word: string): string => (/^[\w./:=+@%-]+$/.test(word) ? word : `'${word.split("'").join("'\\''")}'`);

/** Where the result lies, as the command said. */
function folderOf(summary: Summary): string {
    const match = /(?:-o|--output)[ =]('[^']*'|\S+)/.exec(summary.program?.command ?? '');
    return match ? match[1] : 'result';
}

/** What a user does next, with the reason. */
export function nextStep(summary: Summary): [string, string] {
    const series = quoted(summary.input.path);
    const folder = folderOf(summary);
    const source = summary.tilt_axis.source;
    const level = summary.confidence.level;
    if (axisIsElsewhere(summary))
        return ['Run again with the axis that the reflections say.', `vrk run ${series} -o ${folder} --tilt-axis ${fixed(summary.tilt_axis.refined_deg, 2)}`];
    if (isDistorted(summary))
        return ['Measure the distortion of the microscope on another crystal, of high symmetry or with a known cell, and run again with it.',
            `vrk calibrate another.mrc -o distortion.json && vrk run ${series} -o ${folder} --distortion distortion.json`];
    const isKnown = (summary.tilt_axis.refined_esd_deg ?? 9) < 0.5;
    if (level !== 'high' && source !== 'search' && source !== 'refined' && !isKnown)
        return ['Look for the tilt axis: a wrong one is the usual reason for doubts.', `vrk run ${series} -o ${folder} --tilt-axis search`];
    if (level === 'low')
        return ['Look at a pattern, its centre and the axis.', `vrk info ${series} --picture pattern.png`];
    const solve = `cd ${folder} && cp reflections.hkl crystal.hkl && shelxt crystal`;
    return level === 'high' ? ['Solve the structure.', solve]
        : ['When sections and doubts below are explained, solve the structure.', solve];
}

export function verdict(result: Result): HTMLElement {
    const { summary } = result;
    const light = lightOf(summary);
    const cell = cellTexts(summary);
    const doubts: string[] = summary.confidence.reasons;
    const volume = summary.cell.conventional.volume as number;
    const [reason, command] = nextStep(summary);
    return make('div', { class: 'verdict' },
        make('div', { class: `light ${light.state}` },
            make('span', { class: 'lamp', 'aria-hidden': 'true' }, make('b', {}, light.state === 'right' ? '\u2713' : light.state === 'check' ? '!' : '\u2715')),
            make('div', {}, make('strong', {}, light.word), make('div', {}, light.sentence))),
        make('div', { class: 'cell' },
            make('span', { class: 'bravais', title: 'Lattice type' }, summary.cell.conventional.bravais),
            make('dl', {}, kSigns.map((sign, i) => make('div', {}, make('dt', {}, sign),
                make('dd', {}, cell[i], make('small', {}, i < 3 ? '\u00a0\u00c5' : '\u00b0')))),
            make('div', {}, make('dt', {}, 'V'), make('dd', {}, fixed(volume, volume < 1000 ? 1 : 0), make('small', {}, '\u00a0\u00c5\u00b3')))),
            copyButton(() => cell.join(' '), 'Copy the cell')),
        doubts.length > 0
            ? make('div', { class: 'doubts' }, make('h3', {}, 'What is doubted'), make('ul', {}, doubts.map((text) => make('li', {}, text))))
            : null,
        make('dl', { class: 'facts' }, facts(summary).map(([name, text]) => [make('dt', {}, name), make('dd', {}, text)]).flat()),
        make('div', { class: 'next' }, make('h3', {}, 'Next'), make('p', {}, reason),
            make('div', { class: 'command' }, make('code', {}, command), copyButton(() => command, 'Copy the command'))));
}
