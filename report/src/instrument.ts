// The tilt axis, the distortion, and the difference vectors that gave the lattice.

import { Camera } from './camera';
import { baseOf } from './data';
import type { Result, Summary } from './data';
import { make, makeSvg, table } from './dom';
import { fixed, percent, significant, withUncertainty } from './format';
import { Picture, label, line } from './picture';
import { plot, whenSeen } from './plots';
import { palette } from './theme';
import { length } from './vector';
import type { Vector } from './vector';

const kTermNames: Record<string, string> = {
    axis_turn_deg: 'turn of the axis (\u00b0)',
    ellipse_cos: 'ellipse, e cos 2\u03c6',
    ellipse_sin: 'ellipse, e sin 2\u03c6',
    radial: 'radial, at half a frame',
    tilt_scale: 'scale of the tilts, less 1',
    axis_tilt_deg: 'axis out of the frame (\u00b0)',
};

function axisScores(summary: Summary): HTMLElement {
    const axis = summary.tilt_axis;
    const scores = (axis.scores as { angle_deg: number; score: number }[] | undefined) ?? [];
    if (scores.length === 0)
        return make('p', { class: 'faint' }, `The axis was not searched. Source: ${axis.source}; the reflections say ${
            axis.refined_esd_deg ? withUncertainty(axis.refined_deg, axis.refined_esd_deg) : fixed(axis.refined_deg, 2)}\u00b0.`);
    const sorted = [...scores].sort((a, b) => a.angle_deg - b.angle_deg);
    const best = sorted.reduce((one, other) => (other.score > one.score ? other : one));
    const steps = sorted.slice(1).map((score, i) => score.angle_deg - sorted[i].angle_deg).filter((step) => step > 1e-4);
    const near = Math.max(2, 15 * Math.min(...steps));
    const close = sorted.filter((score) => Math.abs(score.angle_deg - best.angle_deg) <= near);
    const curve = (title: string, list: typeof sorted) => plot({
        title, xLabel: 'angle from y (\u00b0)', x: list.map((score) => score.angle_deg),
        curves: [{ name: 'score', values: list.map((score) => score.score), colour: 0, points: true, text: (v) => significant(v, 5) }],
    });
    return make('div', { class: 'plots' }, curve('Score of the axis', sorted), curve(`Score around the peak, ${fixed(best.angle_deg, 2)}\u00b0`, close));
}

/** A circle as the lens shows it, the ellipse many times too strong. */
function ellipsePicture(cosine: number, sine: number, axis: number): HTMLElement {
    const strength = Math.hypot(cosine, sine);
    const factor = Math.max(1, Math.round(0.18 / Math.max(strength, 1e-4)));
    // From the radial direction, which stands at the angle of the axis from x.
    const azimuth = (0.5 * Math.atan2(sine, cosine) * 180) / Math.PI + axis;
    const [edge, radius] = [240, 84];
    const middle = edge / 2;
    const t = (axis * Math.PI) / 180;
    const svg = makeSvg('svg', { viewBox: `0 0 ${edge} ${edge}`, role: 'img', 'aria-label': 'The elliptical distortion' },
        makeSvg('line', { x1: middle + 112 * Math.sin(t), y1: middle - 112 * Math.cos(t), x2: middle - 112 * Math.sin(t), y2: middle + 112 * Math.cos(t), class: 'axis' }),
        makeSvg('circle', { cx: middle, cy: middle, r: radius, class: 'circle' }),
        makeSvg('ellipse', { cx: middle, cy: middle, rx: radius * (1 + factor * strength), ry: radius * (1 - factor * strength), transform: `rotate(${azimuth} ${middle} ${middle})`, class: 'ellipse' }));
    return make('figure', { class: 'ellipse-picture' }, svg, make('figcaption', {}, `Ellipse of ${percent(strength, 2)} along ${
        fixed(((azimuth % 180) + 180) % 180, 1)}\u00b0 from x, drawn ${factor} times stronger; dashed: the tilt axis`));
}

function distortion(summary: Summary): HTMLElement {
    const { refined, terms, known, residual_before_px: before } = summary.instrument;
    const list = (terms ?? []) as { name: string; value: number; esd: number; correlation: number }[];
    const value = (name: string) => list.find((term) => term.name === name)?.value ?? 0;
    const parts: (HTMLElement | null)[] = [];
    if (!refined) parts.push(make('p', { class: 'faint' }, 'Too few reflections to refine the instrument.'));
    else if (list.length === 0) parts.push(make('p', { class: 'faint' }, `The reflections ask for no distortion; their residual is ${fixed(before, 2)} voxels.`));
    else
        parts.push(table(`Refined with the cell; the residual fell from ${fixed(before, 2)} to ${fixed(summary.reflections.residual_px, 2)} voxels`,
            ['term', 'value', 'largest correlation'],
            list.map((term) => [kTermNames[term.name] ?? term.name, withUncertainty(term.value, term.esd), fixed(term.correlation, 2)])));
    if (known?.terms?.length)
        parts.push(table(`Known, from ${known.file ?? 'a calibration'}`, ['term', 'value'],
            known.terms.map((term: { name: string; value: number; esd: number }) => [term.name, withUncertainty(term.value, term.esd)])));
    const [cosine, sine] = [value('ellipse_cos'), value('ellipse_sin')];
    if (cosine !== 0 || sine !== 0) parts.push(ellipsePicture(cosine, sine, summary.tilt_axis.refined_deg));
    return make('div', { class: 'tables' }, parts);
}

const kEdge = 300;
const kMostReflections = 2200;

/** All differences of the strongest reflections, shorter than a limit, seen along one direction. */
function density(places: Vector[], camera: Camera, limit: number): Uint8Array {
    const counts = new Float32Array(kEdge * kEdge);
    const seen = places.map((g) => camera.project(g, kEdge, kEdge));
    const middle = kEdge / 2;
    for (let i = 0; i < places.length; ++i)
        for (let j = i + 1; j < places.length; ++j) {
            const [x, y, z] = [places[j][0] - places[i][0], places[j][1] - places[i][1], places[j][2] - places[i][2]];
            if (x * x + y * y + z * z > limit * limit) continue;
            const [dx, dy] = [seen[j][0] - seen[i][0], seen[j][1] - seen[i][1]];
            for (const side of [1, -1]) {
                const [column, row] = [Math.floor(middle + side * dx), Math.floor(middle + side * dy)];
                if (column >= 0 && row >= 0 && column < kEdge && row < kEdge) ++counts[row * kEdge + column];
            }
        }
    let most = 1;
    for (const count of counts) most = Math.max(most, count);
    return Uint8Array.from(counts, (count) => 1 + Math.round((254 * Math.log1p(count)) / Math.log1p(most)));
}

function differences(result: Result): HTMLElement | null {
    const base = baseOf(result.summary);
    const list = result.reflections;
    if (!base || !list) return null;
    const { max_length: voxels } = result.summary.parameters;
    const pixel = result.summary.input.pixel_size * 1e-10;
    const limit = Math.max(voxels * pixel, 1.15 * Math.max(...base.map(length)));
    const strongest = Array.from({ length: list.count }, (_, i) => i).filter((i) => list.counts[i] > 0)
        .sort((a, b) => list.counts[b] - list.counts[a]).slice(0, kMostReflections);
    const places = strongest.map((i): Vector => [list.x[i], list.y[i], list.z[i]]);
    const names = ['a*', 'b*', 'c*'];
    const views = names.map((name, along) => {
        const picture = new Picture(`Difference vectors along ${name}`);
        const camera = new Camera(1.02 * limit);
        camera.lookAlong(base[along], base[(along + 2) % 3]);
        const element = make('figure', { class: 'section' }, picture.element, make('figcaption', {}, `along ${name}`));
        whenSeen(element, () => picture.set({ width: kEdge, height: kEdge, values: density(places, camera, limit) }, 20, 235, (context, place) => {
            const colours = palette().categories;
            for (const [i, vector] of base.entries()) {
                if (i === along) continue;
                const tip = camera.project(vector, kEdge, kEdge);
                const [x0, y0] = [place.x(kEdge / 2 - 0.5), place.y(kEdge / 2 - 0.5)];
                const [x1, y1] = [place.x(tip[0] - 0.5), place.y(tip[1] - 0.5)];
                context.strokeStyle = colours[1];
                context.lineWidth = 2;
                line(context, x0, y0, x1, y1);
                const angle = Math.atan2(y1 - y0, x1 - x0);
                for (const turn of [2.7, -2.7]) line(context, x1, y1, x1 + 8 * Math.cos(angle + turn), y1 + 8 * Math.sin(angle + turn));
                label(context, names[i], x1 + 8 * Math.cos(angle) - 6, y1 + 10 * Math.sin(angle) + 5, colours[1]);
            }
        }));
        return element;
    });
    return make('div', { class: 'sections' }, views);
}

export function instrumentGroup(result: Result): HTMLElement {
    const vectors = differences(result);
    return make('div', {},
        make('h3', {}, 'Tilt axis'), axisScores(result.summary),
        make('h3', {}, 'Distortion'), distortion(result.summary),
        vectors ? make('h3', {}, 'Difference vectors of the reflections, with the base vectors of the conventional cell') : null,
        vectors ? make('p', { class: 'faint' }, 'Differences pile up at the vectors of the lattice.') : null,
        vectors);
}
