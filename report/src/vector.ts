// Three-dimensional vectors, in 1/Angstrom where they are places in reciprocal space.

export type Vector = [number, number, number];

export const add = (a: Vector, b: Vector): Vector => [a[0] + b[0], a[1] + b[1], a[2] + b[2]];
export const scale = (f: number, a: Vector): Vector => [f * a[0], f * a[1], f * a[2]];
export const dot = (a: Vector, b: Vector): number => a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
export const length = (a: Vector): number => Math.sqrt(dot(a, a));
export const unit = (a: Vector): Vector => scale(1 / (length(a) || 1), a);
export const cross = (a: Vector, b: Vector): Vector => [
    a[1] * b[2] - a[2] * b[1],
    a[2] * b[0] - a[0] * b[2],
    a[0] * b[1] - a[1] * b[0],
];

/** The node h k l of a lattice with the base vectors a*, b*, c*. */
export const node = (base: Vector[], h: number, k: number, l: number): Vector =>
    add(add(scale(h, base[0]), scale(k, base[1])), scale(l, base[2]));
