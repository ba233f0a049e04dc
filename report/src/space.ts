// Reciprocal space in three dimensions.

import { Camera } from './camera';
import { baseOf } from './data';
import type { Reflections, Result } from './data';
import { button, checkbox, choice, download, make, slider } from './dom';
import { counted, fixed, significant } from './format';
import type { PatternStore } from './patterns';
import { CanvasPainter, WebGlPainter } from './scene';
import type { Lines, Painter, Points } from './scene';
import { nodes, sphere, wedge, wedgePlanes } from './shapes';
import { crystalCategory, cssColour, isPrinting, kNone, onTheme, palette, rgbOf, valueColour } from './theme';
import type { Rgb } from './theme';
import { add, length, scale } from './vector';
import type { Vector } from './vector';

type Colouring = 'indexed' | 'intensity' | 'significance' | 'tilt' | 'frame' | 'crystal' | 'resolution';

const kColourings: [Colouring, string][] = [
    ['indexed', 'indexed'], ['intensity', 'intensity'], ['significance', 'I/\u03c3'], ['tilt', 'tilt'],
    ['frame', 'frame'], ['crystal', 'crystal'], ['resolution', 'resolution'],
];

/** What has a value for every reflection, and how the legend names it. */
interface Scale {
    value(i: number): number;
    text(value: number): string;
    logarithmic: boolean;
}

function painterFor(canvas: HTMLCanvasElement): Painter {
    try {
        return new WebGlPainter(canvas);
    } catch {
        return new CanvasPainter(canvas);
    }
}

/** Puts an element on a place of the picture; in shares, so that it stays there when the picture is printed smaller. */
function stand(element: HTMLElement, at: Vector, width: number, height: number): void {
    element.style.left = `${(100 * at[0]) / width}%`;
    element.style.top = `${(100 * at[1]) / height}%`;
}

export class SpaceView {
    readonly element: HTMLElement;
    readonly hasWebGl: boolean;
    private readonly canvas = make('canvas', {
        class: 'space', tabindex: 0, role: 'img',
        'aria-label': 'Reciprocal space: arrow keys turn, plus and minus zoom, 1 to 5 look along axes',
    });
    private readonly painter: Painter;
    private readonly camera: Camera;
    private readonly list: Reflections;
    private readonly base: Vector[];
    private readonly points: Points;
    private readonly labels: [string, Vector, HTMLElement][] = [];
    private readonly legend = make('div', { class: 'legend', 'aria-live': 'polite' });
    private readonly card = make('div', { class: 'card', 'aria-live': 'polite' });
    private readonly mark = make('div', { class: 'mark', hidden: true });
    private readonly limit: number;  ///< of the reflections, 1/Angstrom
    private colouring: Colouring;
    private crystal = 0;
    private finest = 0;
    private coarsest = Infinity;
    private leastSignificance = 0;
    private withMeasured = false;
    private withNodes = false;
    private withSphere = true;
    private withWedge = true;
    private chosen = -1;
    private pending = false;

    constructor(private readonly result: Result, private readonly patterns: PatternStore | null) {
        this.list = result.reflections as Reflections;
        this.base = baseOf(result.summary) ?? [[1, 0, 0], [0, 1, 0], [0, 0, 1]];
        const { count } = this.list;
        let farthest = 0.1;
        for (let i = 0; i < count; ++i) if (this.isSeen(i)) farthest = Math.max(farthest, 1 / this.list.d[i]);
        this.limit = Math.min(farthest, 20);
        this.colouring = this.crystals > 1 ? 'crystal' : 'indexed';
        this.camera = new Camera(1.08 * this.limit);
        this.points = {
            place: new Float32Array(3 * count), colour: new Float32Array(3 * count),
            size: new Float32Array(count), hollow: new Float32Array(count),
        };
        for (let i = 0; i < count; ++i) this.points.place.set(this.placeOf(i), 3 * i);
        this.painter = painterFor(this.canvas);
        this.hasWebGl = this.painter instanceof WebGlPainter;
        const frame = make('div', { class: 'space-frame' }, this.canvas, this.mark, this.legend);
        for (const [name, place] of this.axes()) {
            const element = make('span', { class: 'axis-label' }, name);
            frame.append(element);
            this.labels.push([name, place, element]);
        }
        this.element = make('div', { class: 'space-group' },
            this.controls(), make('div', { class: 'space-row' }, frame, this.card), this.filters());
        this.camera.lookAlong(add(add(this.base[2], scale(0.35, this.base[0])), scale(0.25, this.base[1])), this.base[1]);
        this.describe();
        this.listen();
        onTheme(() => this.reload());
        new ResizeObserver(() => this.redraw()).observe(frame);
        this.reload();
    }

    private placeOf = (i: number): Vector => [this.list.x[i], this.list.y[i], this.list.z[i]];
    private isSeen = (i: number): boolean => this.list.counts[i] > 0;
    private intensityOf = (i: number): number => (this.list.sigma[i] > 0 ? this.list.intensity[i] : NaN);
    private significanceOf = (i: number): number =>
        this.list.sigma[i] > 0 ? this.list.intensity[i] / this.list.sigma[i] : NaN;

    private axes(): [string, Vector][] {
        return ['a*', 'b*', 'c*'].map((name, i) => [name, scale(1.02 * this.limit / length(this.base[i]) * 0.5, this.base[i])]);
    }

    private get crystals(): number {
        return this.result.summary.crystals?.length ?? 1;
    }

    // ---- what is shown

    private shows(i: number): boolean {
        const { list } = this;
        if (!this.isSeen(i) && !this.withMeasured) return false;
        if (this.crystal > 0 && list.crystal[i] !== this.crystal) return false;
        if (list.d[i] < this.finest || list.d[i] > this.coarsest) return false;
        if (this.leastSignificance > 0 && !(this.significanceOf(i) >= this.leastSignificance)) return false;
        return true;
    }

    private valueScale(): Scale | null {
        const { list } = this;
        const anyMeasured = list.sigma.some((sigma) => sigma > 0);
        switch (this.colouring) {
            case 'intensity':
                return anyMeasured
                    ? { value: this.intensityOf, text: (v) => significant(v, 3), logarithmic: true }
                    : { value: (i) => list.counts[i], text: (v) => significant(v, 3), logarithmic: true };
            case 'significance': return { value: this.significanceOf, text: (v) => significant(v, 3), logarithmic: true };
            case 'tilt': return { value: (i) => list.tilt[i], text: (v) => `${fixed(v, 1)}\u00b0`, logarithmic: false };
            case 'frame': return { value: (i) => list.frame[i], text: (v) => fixed(v, 0), logarithmic: false };
            case 'resolution': return { value: (i) => 1 / list.d[i], text: (v) => `${fixed(1 / v, 2)} \u00c5`, logarithmic: false };
            default: return null;
        }
    }

    private range(scaleOfValues: Scale): [number, number] {
        const values: number[] = [];
        for (let i = 0; i < this.list.count; ++i) {
            const value = scaleOfValues.value(i);
            if (isFinite(value) && (!scaleOfValues.logarithmic || value > 0)) values.push(value);
        }
        values.sort((a, b) => a - b);
        if (values.length === 0) return [1, 10];
        // A few outliers shall not take the whole scale.
        const trim = scaleOfValues.logarithmic ? 0.02 : 0;
        return [values[Math.floor(trim * (values.length - 1))], values[Math.ceil((1 - trim / 4) * (values.length - 1))]];
    }

    private category(i: number): number {
        const crystal = this.list.crystal[i];
        if (crystal === 0) return kNone;
        return this.colouring === 'indexed' ? 0 : crystalCategory(crystal);
    }

    private paint(): void {
        const { list, points } = this;
        const colours = palette().categories.map(rgbOf);
        const scaleOfValues = this.valueScale();
        const none = rgbOf(palette().faint);
        const [low, high] = scaleOfValues ? this.range(scaleOfValues) : [0, 1];
        const share = (value: number) =>
            scaleOfValues?.logarithmic ? Math.log(value / low) / Math.log(high / low || 2) : (value - low) / (high - low || 1);
        let strongest = 1;
        for (let i = 0; i < list.count; ++i) strongest = Math.max(strongest, list.counts[i]);
        for (let i = 0; i < list.count; ++i) {
            let colour: Rgb = none;
            if (scaleOfValues) {
                const value = scaleOfValues.value(i);
                if (isFinite(value)) colour = valueColour(scaleOfValues.logarithmic && value <= 0 ? 0 : share(value));
            } else {
                colour = colours[this.category(i) % colours.length];
            }
            points.colour.set(colour, 3 * i);
            const weight = this.isSeen(i) ? Math.max(0, 1 + Math.log10(list.counts[i] / strongest) / 3) : 0;
            points.size[i] = this.shows(i) ? (i === this.chosen ? 12 : 4 + 5 * weight) : 0;
            points.hollow[i] = list.crystal[i] > 0 ? 0 : 1;
        }
        this.showLegend(scaleOfValues, low, high);
    }

    private showLegend(scaleOfValues: Scale | null, low: number, high: number): void {
        const { list } = this;
        let shown = 0;
        for (let i = 0; i < list.count; ++i) if (this.points.size[i] > 0) ++shown;
        const entries: HTMLElement[] = [];
        if (scaleOfValues) {
            const stops = Array.from({ length: 9 }, (_, i) => cssColour(valueColour(i / 8))).join(',');
            entries.push(make('span', {}, scaleOfValues.text(low)),
                make('span', { class: 'ramp', style: `background:linear-gradient(90deg,${stops})` }),
                make('span', {}, scaleOfValues.text(high)));
        } else {
            const names: [string, number][] = this.colouring === 'indexed'
                ? [['indexed', 0], ['not indexed', kNone]]
                : [...Array.from({ length: this.crystals }, (_, i): [string, number] => [`crystal ${i + 1}`, crystalCategory(i + 1)]),
                    ['none', kNone]];
            for (const [name, category] of names)
                entries.push(make('span', { class: 'key' },
                    make('i', { class: category === kNone ? 'hollow' : '', style: `color:${palette().categories[category % 6]}` }), name));
        }
        this.legend.replaceChildren(...entries, make('span', { class: 'faint' }, counted(shown, 'reflection')));
    }

    private lines(): Lines[] {
        const colours = palette();
        const lines: Lines[] = [];
        const addLines = (places: number[], colour: string, opacity: number) =>
            lines.push({ place: new Float32Array(places), colour: rgbOf(colour), opacity });
        for (const [, tip] of this.axes()) addLines([0, 0, 0, ...tip], colours.ink, 0.9);
        if (this.withSphere) {
            const radius = this.finest > 0 ? 1 / this.finest : this.limit;
            addLines(sphere(radius), colours.faint, 0.35);
        }
        const { tilt_first: first, tilt_last: last } = this.result.summary.input;
        if (this.withWedge) addLines(wedge(first, last, this.limit), colours.categories[3], 0.75);
        return lines;
    }

    private surfaces(): Lines[] {
        if (!this.withWedge) return [];
        const { tilt_first: first, tilt_last: last } = this.result.summary.input;
        return [{ place: new Float32Array(wedgePlanes(first, last, this.limit)), colour: rgbOf(palette().categories[3]), opacity: 0.09 }];
    }

    /** The nodes of the crystals that are shown. */
    private nodePoints(): Points[] {
        const { faint, categories } = palette();
        const radius = this.finest > 0 ? Math.min(this.limit, 1 / this.finest) : this.limit;
        const numbers = Array.from({ length: this.crystals }, (_, i) => i + 1).filter((i) => this.crystal === 0 || i === this.crystal);
        return numbers.map((number) => {
            const place = new Float32Array(nodes(this.result.summary, number - 1, radius));
            const colour = rgbOf(this.crystals > 1 ? categories[crystalCategory(number)] : faint);
            return {
                place, colour: place.map((_, i) => colour[i % 3]),
                size: new Float32Array(place.length / 3).fill(1.8), hollow: new Float32Array(place.length / 3),
            };
        });
    }

    /** After anything but the view has changed. */
    private reload(): void {
        this.paint();
        const points = this.withNodes ? [...this.nodePoints(), this.points] : [this.points];
        this.painter.load({ points, lines: this.lines(), surfaces: this.surfaces(), paper: rgbOf(palette().paper) });
        this.redraw();
    }

    private redraw(): void {
        if (isPrinting()) {
            this.drawNow();
            return;
        }
        if (this.pending) return;
        this.pending = true;
        requestAnimationFrame(() => {
            this.pending = false;
            this.drawNow();
        });
    }

    private drawNow(): void {
        const { clientWidth: width, clientHeight: height } = this.canvas;
        if (width < 1) return;
        this.painter.draw(this.camera, width, height);
        for (const [, place, element] of this.labels) {
            const at = this.camera.project(place, width, height);
            const inside = at[0] > 8 && at[1] > 8 && at[0] < width - 8 && at[1] < height - 8;
            element.hidden = !inside;
            stand(element, at, width, height);
        }
        this.mark.hidden = this.chosen < 0 || this.points.size[this.chosen] <= 0;
        if (this.chosen >= 0) {
            const at = this.camera.project(this.placeOf(this.chosen), width, height);
            stand(this.mark, at, width, height);
        }
    }

    // ---- controls

    private controls(): HTMLElement {
        const [a, b, c] = this.base;
        const views: [string, string, Vector, Vector][] = [
            ['a*', 'Look along a* (1)', a, c], ['b*', 'Look along b* (2)', b, c], ['c*', 'Look along c* (3)', c, b],
            ['tilt axis', 'Look along the tilt axis (4)', [0, 1, 0], [0, 0, 1]],
            ['beam', 'Look along the beam at zero tilt (5)', [0, 0, 1], [0, 1, 0]],
        ];
        const buttons = views.map(([name, title, direction, upwards]) => button(name, title, () => {
            this.camera.lookAlong(direction, upwards);
            this.redraw();
        }));
        this.canvas.addEventListener('keydown', (event) => {
            const number = Number(event.key);
            if (number >= 1 && number <= 5) buttons[number - 1].click();
        });
        const crystals: [string, string][] = [['0', 'all'], ...Array.from({ length: this.crystals },
            (_, i): [string, string] => [String(i + 1), `crystal ${i + 1}`])];
        return make('div', { class: 'controls' },
            choice('Colour', kColourings, this.colouring, (value) => {
                this.colouring = value as Colouring;
                this.reload();
            }),
            this.crystals > 1
                ? choice('Show', crystals, '0', (value) => { this.crystal = Number(value); this.reload(); })
                : null,
            make('span', { class: 'buttons', role: 'group', 'aria-label': 'Look along' },
                make('span', { class: 'faint' }, 'Look along'), buttons),
            button('Save PNG', 'Save the picture', () => {
                this.drawNow();
                download(this.canvas.toDataURL('image/png'), `${this.result.name}-space.png`);
            }));
    }

    private filters(): HTMLElement {
        const steps = 200;
        const spacing = (value: number) => (value >= steps ? 0 : 1 / ((value / steps) * this.limit));
        const measured = Array.from({ length: this.list.count }, (_, i) => this.significanceOf(i)).filter(isFinite);
        return make('div', { class: 'controls' },
            slider('Resolution', 20, steps, 1, steps, (v) => (v >= steps ? 'all' : `to ${fixed(spacing(v), 2)} \u00c5`), (v) => {
                this.finest = spacing(v);
                this.reload();
            }),
            measured.length > 0
                ? slider('I/\u03c3 at least', 0, 50, 1, 0, (v) => (v === 0 ? 'all' : String(v)), (v) => {
                    this.leastSignificance = v;
                    this.reload();
                })
                : null,
            checkbox('nodes', false, (on) => { this.withNodes = on; this.reload(); }),
            checkbox('sphere', true, (on) => { this.withSphere = on; this.reload(); }),
            checkbox('unrecorded wedge', true, (on) => { this.withWedge = on; this.reload(); }),
            measured.length > 0
                ? checkbox('weak ones measured on the frames', false, (on) => { this.withMeasured = on; this.reload(); })
                : null);
    }

    private listen(): void {
        const { canvas, camera } = this;
        const pointers = new Map<number, [number, number]>();
        let moved = 0;
        canvas.addEventListener('pointerdown', (event) => {
            pointers.set(event.pointerId, [event.clientX, event.clientY]);
            moved = 0;
            canvas.setPointerCapture(event.pointerId);
        });
        canvas.addEventListener('pointermove', (event) => {
            const last = pointers.get(event.pointerId);
            if (!last) return;
            const x = event.clientX - last[0];
            const y = event.clientY - last[1];
            moved += Math.abs(x) + Math.abs(y);
            const others = [...pointers].filter(([id]) => id !== event.pointerId);
            if (others.length > 0) {
                const other = others[0][1];
                const before = Math.hypot(last[0] - other[0], last[1] - other[1]);
                const after = Math.hypot(event.clientX - other[0], event.clientY - other[1]);
                if (before > 0) camera.zoomBy(after / before);
            } else {
                const edge = Math.min(canvas.clientWidth, canvas.clientHeight);
                camera.turn(x / edge, y / edge);
            }
            pointers.set(event.pointerId, [event.clientX, event.clientY]);
            this.redraw();
        });
        canvas.addEventListener('pointerup', (event) => {
            pointers.delete(event.pointerId);
            if (moved < 5) this.pick(event.offsetX, event.offsetY);
        });
        canvas.addEventListener('pointercancel', (event) => pointers.delete(event.pointerId));
        canvas.addEventListener('wheel', (event) => {
            // A page that is scrolled past shall not be caught.
            if (document.activeElement !== canvas) return;
            event.preventDefault();
            camera.zoomBy(Math.exp(-0.0015 * event.deltaY));
            this.redraw();
        }, { passive: false });
        canvas.addEventListener('keydown', (event) => {
            const moves: Record<string, () => void> = {
                ArrowLeft: () => camera.turn(-0.05, 0), ArrowRight: () => camera.turn(0.05, 0),
                ArrowUp: () => camera.turn(0, -0.05), ArrowDown: () => camera.turn(0, 0.05),
                '+': () => camera.zoomBy(1.2), '-': () => camera.zoomBy(1 / 1.2),
                Escape: () => this.choose(-1),
            };
            const move = moves[event.key];
            if (!move) return;
            event.preventDefault();
            move();
            this.redraw();
        });
    }

    /** The nearest point to a place of the picture, of those at the place the one in front. */
    private pick(x: number, y: number): void {
        const { clientWidth: width, clientHeight: height } = this.canvas;
        const reach = 9;
        let best = -1;
        let least = Infinity;
        for (let i = 0; i < this.list.count; ++i) {
            if (this.points.size[i] <= 0) continue;
            const at = this.camera.project(this.placeOf(i), width, height);
            const away = Math.hypot(at[0] - x, at[1] - y);
            if (away > reach) continue;
            const rank = away - (3 * at[2]) / this.limit;
            if (rank < least) {
                least = rank;
                best = i;
            }
        }
        this.choose(best);
    }

    private choose(i: number): void {
        this.chosen = i;
        this.describe();
        this.redraw();
    }

    private describe(): void {
        const { list, chosen: i } = this;
        if (i < 0) {
            this.card.replaceChildren(make('p', { class: 'faint' },
                'Drag to turn, click a reflection to name it. With the picture in focus: wheel or + \u2212 to zoom, arrow keys to turn, 1 to 5 to look along an axis.'));
            return;
        }
        const indexed = list.crystal[i] > 0;
        const rows: [string, string][] = [
            ['d', `${significant(list.d[i], 4)} \u00c5`],
            ['I', list.sigma[i] > 0 ? significant(list.intensity[i], 4) : 'not measured'],
            ['\u03c3', list.sigma[i] > 0 ? significant(list.sigma[i], 3) : ''],
            ['I/\u03c3', list.sigma[i] > 0 ? significant(this.significanceOf(i), 3) : ''],
            ['counts', this.isSeen(i) ? significant(list.counts[i], 4) : 'not seen in the volume'],
            ['frame', `${list.frame[i]}, tilt ${fixed(list.tilt[i], 2)}\u00b0`],
            ['x y z', `${fixed(list.x[i], 4)} ${fixed(list.y[i], 4)} ${fixed(list.z[i], 4)} 1/\u00c5`],
        ];
        if (this.crystals > 1) rows.unshift(['crystal', indexed ? String(list.crystal[i]) : 'none']);
        if (list.cut[i]) rows.push(['', 'cut by what was not recorded']);
        const name = indexed ? `${list.h[i]} ${list.k[i]} ${list.l[i]}` : 'not indexed';
        this.card.replaceChildren(
            make('h3', { class: 'hkl' }, name),
            make('dl', {}, rows.filter(([, value]) => value !== '').map(([key, value]) => [make('dt', {}, key), make('dd', {}, value)]).flat()),
            this.patterns?.cutOut(list.frame[i] - 1, list.column[i], list.row[i]) ?? '');
    }
}
