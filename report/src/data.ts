// The data that vrk wrote into the page: JSON, and columns of numbers in it, compressed and in base64.

import { unzlibSync } from 'fflate';
import type { Vector } from './vector';

export interface Packed {
    type: string;
    count: number;
    data: string;
}

export type Column = Float32Array | Int16Array | Uint16Array | Uint32Array | Uint8Array;

export interface CellNumbers {
    a: number;
    b: number;
    c: number;
    alpha: number;
    beta: number;
    gamma: number;
    volume?: number;
}

/** docs/summary-json.md explains the keys. */
// eslint-disable-next-line @typescript-eslint/no-explicit-any
export type Summary = any;

export interface Layer {
    level: number;
    data: string;
}

export interface Plane {
    name: string;
    u: Vector;
    v: Vector;
    w: Vector;
    layers: Layer[];
}

export interface Sections {
    size: number;
    radius: number;
    top: number;
    noise: number;
    planes: Plane[];
}

export interface Spots {
    start: Packed;
    x: Packed;
    y: Packed;
    h?: Packed;
    k?: Packed;
    l?: Packed;
    crystal?: Packed;
}

export interface Patterns {
    bin: number;
    width: number;
    height: number;
    axis: number;
    step: number;
    radius: number;
    tilts: number[];
    centres: [number, number][];
    frames: string[];
    predicted: Spots;
    observed: Spots;
}

export interface RockingCurve {
    hkl: Vector;
    d: number;
    i_over_sigma: number;
    tilts: number[];
    counts: (number | null)[];
    sigma: (number | null)[];
    fitted: number[];
}

/** The columns of reflections.csv. A sigma of 0: not measured; counts of 0: not seen in the volume. */
export interface Reflections {
    count: number;
    h: Column;
    k: Column;
    l: Column;
    crystal: Column;
    x: Column;
    y: Column;
    z: Column;
    d: Column;
    tilt: Column;
    frame: Column;
    column: Column;
    row: Column;
    counts: Column;
    intensity: Column;
    sigma: Column;
    cut: Column;
}

export interface Result {
    name: string;
    summary: Summary;
    reflections: Reflections | null;
    evaluation: Summary | null;
    sections: Sections | null;
    curves: RockingCurve[] | null;
    patterns: Patterns | null;
}

export function inflate(data: string): Uint8Array {
    const text = atob(data);
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i);
    return unzlibSync(bytes);
}

/** The first bytes of all values stand together, then the second ones, and so on. */
export function unpack(packed: Packed): Column {
    const { count } = packed;
    const bytes = inflate(packed.data);
    const width = Number(packed.type[1]);
    const mixed = new Uint8Array(count * width);
    for (let byte = 0; byte < width; ++byte)
        for (let i = 0; i < count; ++i) mixed[i * width + byte] = bytes[byte * count + i];
    switch (packed.type) {
        case 'f4': return new Float32Array(mixed.buffer);
        case 'i2': return new Int16Array(mixed.buffer);
        case 'u2': return new Uint16Array(mixed.buffer);
        case 'u4': return new Uint32Array(mixed.buffer);
        default: return mixed;
    }
}

function unpackAll(json: Record<string, Packed | number> | null): Reflections | null {
    if (!json) return null;
    const columns: Record<string, Column | number> = { count: json.count as number };
    for (const [name, value] of Object.entries(json))
        if (name !== 'count') columns[name] = unpack(value as Packed);
    return columns as unknown as Reflections;
}

/** The last part of a path, without its ending. */
export const stem = (path: string): string => (path.split(/[\\/]/).pop() ?? path).replace(/\.[^.]*$/, '') || path;

/** All results of the page, in their order. */
export function readResults(): Result[] {
    const blocks: Record<string, unknown>[] = [];
    for (const element of Array.from(document.querySelectorAll<HTMLElement>('script[data-block]'))) {
        const number = Number(element.dataset.result);
        (blocks[number] ??= {})[element.dataset.block ?? ''] = JSON.parse(element.textContent ?? 'null');
    }
    return blocks.map((block) => {
        const summary = block.summary as Summary;
        return {
            name: (block.folder as string | undefined) ?? stem(summary?.input?.path ?? 'result'),
            summary,
            reflections: unpackAll((block.reflections ?? null) as Record<string, Packed | number> | null),
            evaluation: (block.evaluation ?? null) as Summary | null,
            sections: (block.sections ?? null) as Sections | null,
            curves: (block.curves ?? null) as RockingCurve[] | null,
            patterns: (block.patterns ?? null) as Patterns | null,
        };
    });
}

/** a*, b*, c* of the conventional cell of a crystal (0: the first), 1/Angstrom. */
export function baseOf(summary: Summary, crystal = 0): Vector[] | null {
    return (summary?.crystals?.[crystal]?.reciprocal_vectors as Vector[] | undefined) ?? null;
}
