// Planes of reciprocal space in the frame of the crystal.

import { baseOf, inflate } from './data';
import type { Layer, Plane, Result, Sections } from './data';
import { button, checkbox, download, make, slider } from './dom';
import { fixed, hklText } from './format';
import { Picture, label, line, ring, scaleBar } from './picture';
import type { Placement } from './picture';
import { whenSeen } from './plots';
import { palette } from './theme';
import { add, cross, dot, length, node, scale, unit } from './vector';
import type { Vector } from './vector';

const kRings = [10, 5, 3, 2, 1.5, 1.2, 1, 0.9, 0.8, 0.7, 0.6, 0.5, 0.4];
const kNames = ['a*', 'b*', 'c*'];

/** Whether a centring leaves a reflection. */
export function isPresent(centring: string, h: number, k: number, l: number): boolean {
    const even = (sum: number) => sum % 2 === 0;
    switch (centring) {
        case 'A': return even(k + l);
        case 'B': return even(h + l);
        case 'C': return even(h + k);
        case 'I': return even(h + k + l);
        case 'F': return even(h + k) && even(k + l);
        case 'R': return (-h + k + l) % 3 === 0;
        default: return true;
    }
}

interface Shown {
    rings: boolean;
    nodes: boolean;
    brightness: number;
}

/** Where the nodes of a plane stand in its picture. */
class PlaneFrame {
    readonly right: Vector;
    readonly up: Vector;
    readonly height: number;  ///< of the layer above the origin, 1/Angstrom

    constructor(base: Vector[], plane: Plane, readonly level: number) {
        const of = (hkl: Vector) => node(base, hkl[0], hkl[1], hkl[2]);
        this.right = unit(of(plane.u));
        const normal = unit(cross(of(plane.u), of(plane.v)));
        this.up = cross(normal, this.right);
        this.height = level * dot(normal, of(plane.w));
    }
}

class SectionView {
    readonly element: HTMLElement;
    private readonly picture: Picture;
    private readonly layers: Layer[];
    private readonly title = make('h3', {});
    private readonly under = make('p', { class: 'faint' });
    private number: number;
    private values: Uint8Array = new Uint8Array();

    constructor(private readonly data: Sections, private readonly plane: Plane, private readonly base: Vector[],
                private readonly centring: string, private readonly shown: Shown, name: string) {
        this.layers = [...plane.layers].sort((a, b) => a.level - b.level);
        this.number = this.layers.findIndex((layer) => layer.level === 0);
        this.picture = new Picture(`Section ${plane.name}`);
        const [first, last] = [this.layers[0].level, this.layers[this.layers.length - 1].level];
        const range = slider('Layer', first, last, 1, 0, (level) => this.nameOf(level), (level) => {
            this.number = this.layers.findIndex((layer) => layer.level === level);
            this.load();
        });
        this.element = make('div', { class: 'section' }, this.title,
            this.picture.element,
            make('div', { class: 'controls' }, range, button('Save PNG', 'Save the picture', () =>
                download(this.picture.url(), `${name}-${this.nameOf(this.layers[this.number].level)}.png`))),
            this.under);
        this.picture.hover = (at) => this.tell(at);
        whenSeen(this.element, () => this.load());
    }

    /** hk1 for the plane hk0 and the level 1. */
    private nameOf(level: number): string {
        return this.plane.name.replace('0', String(level));
    }

    private load(): void {
        const layer = this.layers[this.number];
        if (!layer) return;
        this.title.textContent = this.nameOf(layer.level);
        this.values = inflate(layer.data);
        this.show();
    }

    show(): void {
        if (this.values.length === 0) return;
        const white = 2 + 61 / this.shown.brightness;
        this.picture.set({ width: this.data.size, height: this.data.size, values: this.values }, 2, white,
            (context, place) => this.drawOver(context, place));
    }

    private get frame(): PlaneFrame {
        return new PlaneFrame(this.base, this.plane, this.layers[this.number].level);
    }

    /** Pixels of the picture in one 1/Angstrom. */
    private get density(): number {
        return this.data.size / (2 * this.data.radius);
    }

    private placeOf(frame: PlaneFrame, g: Vector): [number, number] {
        const middle = 0.5 * (this.data.size - 1);
        return [middle + this.density * dot(g, frame.right), middle - this.density * dot(g, frame.up)];
    }

    private drawOver(context: CanvasRenderingContext2D, place: Placement): void {
        const { frame } = this;
        const pixels = this.density * place.scale;
        if (this.shown.nodes) this.drawNodes(context, place, frame);
        if (this.shown.rings) this.drawRings(context, place, frame, pixels);
        this.drawAxes(context, place, frame);
        scaleBar(context, pixels, place);
    }

    private drawRings(context: CanvasRenderingContext2D, place: Placement, frame: PlaneFrame, pixels: number): void {
        const { faint, categories } = palette();
        const [x, y] = this.placeOf(frame, [0, 0, 0]);
        let last = 0;
        for (const d of kRings) {
            const square = 1 / (d * d) - frame.height * frame.height;
            if (square <= 0) continue;
            const radius = Math.sqrt(square);
            if (radius > 1.35 * this.data.radius || (radius - last) * pixels < 34) continue;
            last = radius;
            context.lineWidth = 1;
            context.strokeStyle = faint;
            context.setLineDash([3, 4]);
            ring(context, place.x(x), place.y(y), radius * pixels);
            context.setLineDash([]);
            const side = radius * pixels * Math.SQRT1_2;
            if (place.x(x) + side < place.width - 44 && place.y(y) - side > 14)
                label(context, `${d} \u00c5`, place.x(x) + side, place.y(y) - side, categories[0]);
        }
    }

    private drawNodes(context: CanvasRenderingContext2D, place: Placement, frame: PlaneFrame): void {
        const { base, plane } = this;
        const of = (hkl: Vector) => node(base, hkl[0], hkl[1], hkl[2]);
        const u = of(plane.u);
        const v = of(plane.v);
        const rows = length(cross(u, v)) / Math.max(length(u), length(v));
        if (rows * this.density * place.scale < 6) return;
        const radius = Math.min(7, Math.max(3, 0.25 * rows * this.density * place.scale));
        const most = Math.ceil((1.5 * this.data.radius) / rows);
        context.lineWidth = 1;
        context.strokeStyle = palette().categories[2];
        for (let i = -most; i <= most; ++i)
            for (let j = -most; j <= most; ++j) {
                const hkl = add(add(scale(i, plane.u), scale(j, plane.v)), scale(frame.level, plane.w));
                if (!isPresent(this.centring, hkl[0], hkl[1], hkl[2])) continue;
                const [x, y] = this.placeOf(frame, of(hkl));
                if (this.valueAt(x, y) > 0) ring(context, place.x(x), place.y(y), radius);
            }
    }

    private drawAxes(context: CanvasRenderingContext2D, place: Placement, frame: PlaneFrame): void {
        const origin = node(this.base, ...(scale(frame.level, this.plane.w) as [number, number, number]));
        const [x0, y0] = this.placeOf(frame, origin);
        for (const axis of [this.plane.u, this.plane.v]) {
            const vector = node(this.base, axis[0], axis[1], axis[2]);
            const [x, y] = this.placeOf(frame, add(origin, scale((0.93 * this.data.radius) / length(vector), vector)));
            const { ink } = palette();
            context.strokeStyle = ink;
            context.lineWidth = 1;
            context.globalAlpha = 0.55;
            line(context, place.x(x0), place.y(y0), place.x(x), place.y(y));
            context.globalAlpha = 1;
            label(context, kNames[axis.indexOf(1)] ?? hklText(axis), place.x(x) - 8, place.y(y) + 5, ink);
        }
    }

    private valueAt(x: number, y: number): number {
        const { size } = this.data;
        const [column, row] = [Math.round(x), Math.round(y)];
        return column < 0 || row < 0 || column >= size || row >= size ? 0 : this.values[row * size + column];
    }

    /** Indices and spacing under the pointer. */
    private tell(at: [number, number] | null): void {
        this.under.textContent = '';
        if (!at) return;
        const { frame } = this;
        const middle = 0.5 * (this.data.size - 1);
        const x = (at[0] - middle) / this.density;
        const y = (middle - at[1]) / this.density;
        const u = node(this.base, ...this.plane.u);
        const v = node(this.base, ...this.plane.v);
        const origin = node(this.base, ...(scale(frame.level, this.plane.w) as [number, number, number]));
        const [u1, u2, v1, v2] = [dot(u, frame.right), dot(u, frame.up), dot(v, frame.right), dot(v, frame.up)];
        const [dx, dy] = [x - dot(origin, frame.right), y - dot(origin, frame.up)];
        const determinant = u1 * v2 - u2 * v1;
        const i = (dx * v2 - dy * v1) / determinant;
        const j = (u1 * dy - u2 * dx) / determinant;
        const hkl = this.plane.u.map((_, n) => i * this.plane.u[n] + j * this.plane.v[n] + frame.level * this.plane.w[n]);
        const away = Math.hypot(x, y, frame.height);
        const what = this.valueAt(at[0], at[1]) === 0 ? ', not recorded' : '';
        this.under.textContent = `${hkl.map((index) => fixed(index, 1)).join('  ')}, d ${away > 0 ? fixed(1 / away, 2) : '\u221e'} \u00c5${what}`;
    }
}

export function sectionsGroup(result: Result): HTMLElement | null {
    const data = result.sections;
    const base = baseOf(result.summary);
    if (!data || !base) return null;
    const shown: Shown = { rings: true, nodes: false, brightness: 1 };
    const centring = (result.summary.cell.candidates?.[0]?.centring as string | undefined) ?? 'P';
    const views = data.planes.filter((plane) => plane.layers.length > 0)
        .map((plane) => new SectionView(data, plane, base, centring, shown, result.name));
    const showAll = () => views.forEach((view) => view.show());
    return make('div', {},
        make('p', { class: 'faint' }, 'Rows of spots parallel to the axes, and every spot on a node, mean that the cell is right. Tinted areas were not recorded.'),
        make('div', { class: 'controls' },
            slider('Brightness', -8, 8, 1, 0, (v) => fixed(1.2 ** v, 1), (v) => { shown.brightness = 1.2 ** v; showAll(); }),
            checkbox('nodes', false, (on) => { shown.nodes = on; showAll(); }),
            checkbox('resolution', true, (on) => { shown.rings = on; showAll(); })),
        make('div', { class: 'sections' }, views.map((view) => view.element)));
}
