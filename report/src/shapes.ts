// Shapes about the origin of reciprocal space: places in 1/Angstrom, one after the other.

import { baseOf } from './data';
import type { Summary } from './data';
import { add, length, node, scale } from './vector';
import type { Vector } from './vector';

const kDegree = Math.PI / 180;
const kMostNodes = 40000;

/** Circles about the origin in the plane of two unit vectors, as pairs of places. */
function circle(u: Vector, v: Vector, radius: number, from = 0, to = 360, steps = 72): number[] {
    const at = (angle: number) =>
        add(scale(radius * Math.cos(angle * kDegree), u), scale(radius * Math.sin(angle * kDegree), v));
    const places: number[] = [];
    for (let i = 0; i < steps; ++i)
        places.push(...at(from + ((to - from) * i) / steps), ...at(from + ((to - from) * (i + 1)) / steps));
    return places;
}

/** Three circles about the origin, as pairs of places. */
export const sphere = (radius: number): number[] => [
    ...circle([1, 0, 0], [0, 1, 0], radius), ...circle([1, 0, 0], [0, 0, 1], radius), ...circle([0, 1, 0], [0, 0, 1], radius),
];

/** Radial direction of the image at a tilt; the axis lies along y. */
const across = (tilt: number): Vector => [Math.cos(tilt * kDegree), 0, Math.sin(tilt * kDegree)];

/** What no tilt reached, as pairs of places: the limits of the recorded part, and arcs from one to the other. */
export function wedge(first: number, last: number, limit: number): number[] {
    const places: number[] = [];
    for (const tilt of [first, last]) places.push(...circle(across(tilt), [0, 1, 0], limit));
    for (const start of [last, last + 180])
        for (const height of [-0.8, -0.4, 0, 0.4, 0.8]) {
            const arc = circle([1, 0, 0], [0, 0, 1], limit * Math.sqrt(1 - height * height), start, start + 180 - (last - first), 24);
            for (let i = 1; i < arc.length; i += 3) arc[i] += height * limit;
            places.push(...arc);
        }
    return places;
}

/** The planes of the first and the last tilt, between which nothing was recorded, as triangles. */
export function wedgePlanes(first: number, last: number, limit: number): number[] {
    const places: number[] = [];
    for (const tilt of [first, last]) {
        const rim = circle(across(tilt), [0, 1, 0], limit);
        for (let i = 0; i < rim.length; i += 6) places.push(0, 0, 0, ...rim.slice(i, i + 6));
    }
    return places;
}

/** The nodes of a crystal (0: the first) up to a radius. */
export function nodes(summary: Summary, crystal: number, radius: number): number[] {
    const base = baseOf(summary, crystal);
    if (!base) return [];
    const places: number[] = [];
    const most = base.map((vector) => Math.min(60, Math.ceil((2 * radius) / length(vector))));
    for (let h = -most[0]; h <= most[0]; ++h)
        for (let k = -most[1]; k <= most[1]; ++k)
            for (let l = -most[2]; l <= most[2]; ++l) {
                const g = node(base, h, k, l);
                if (length(g) <= radius && places.length < 3 * kMostNodes) places.push(...g);
            }
    return places;
}
