// The frames with the spots in them.

import { inflate, unpack } from './data';
import type { Column, Patterns } from './data';
import { checkbox, make, setSlider, slider } from './dom';
import { counted, fixed, hklText } from './format';
import { Picture, line, ring } from './picture';
import type { Placement } from './picture';
import { crystalCategory, isDark, palette } from './theme';

const kPlaceUnit = 16;
const kKept = 12;
/** Grey value of the background when the halo is taken off. */
const kGround = 12;

interface SpotList {
    start: Column;
    x: Column;
    y: Column;
    h: Column | null;
    k: Column | null;
    l: Column | null;
    crystal: Column | null;
}

/** The pictures of the frames, unpacked when they are wanted. */
export class PatternStore {
    readonly predicted: SpotList;
    readonly observed: SpotList;
    private readonly kept = new Map<number, Uint8Array>();

    constructor(readonly data: Patterns) {
        const list = (spots: Patterns['predicted']): SpotList => ({
            start: unpack(spots.start), x: unpack(spots.x), y: unpack(spots.y), h: spots.h ? unpack(spots.h) : null,
            k: spots.k ? unpack(spots.k) : null, l: spots.l ? unpack(spots.l) : null,
            crystal: spots.crystal ? unpack(spots.crystal) : null,
        });
        this.predicted = list(data.predicted);
        this.observed = list(data.observed);
    }

    get count(): number {
        return this.data.frames.length;
    }

    /** Grey values without the halo of the direct beam: over the medians of rings. */
    frame(number: number): Uint8Array {
        const known = this.kept.get(number);
        if (known) return known;
        const values = this.withoutHalo(inflate(this.data.frames[number]), number);
        this.kept.set(number, values);
        if (this.kept.size > kKept) this.kept.delete(this.kept.keys().next().value as number);
        return values;
    }

    private withoutHalo(values: Uint8Array, number: number): Uint8Array {
        const { width, height } = this.data;
        const [cx, cy] = this.data.centres[number].map((pixel) => this.toPicture(pixel));
        const ringOf = (x: number, y: number) => Math.round(Math.hypot(x - cx, y - cy));
        const rings = Math.ceil(Math.hypot(width, height)) * 2 + 2;
        const counts = new Uint16Array(256 * rings);
        for (let y = 0, i = 0; y < height; ++y)
            for (let x = 0; x < width; ++x, ++i)
                if (values[i] > 0) ++counts[256 * Math.min(rings - 1, ringOf(x, y)) + values[i]];
        const medians = Array.from({ length: rings }, (_, ring) => {
            let total = 0;
            for (let value = 1; value < 256; ++value) total += counts[256 * ring + value];
            let sum = 0;
            for (let value = 1; value < 256; ++value) {
                const count = counts[256 * ring + value];
                // Between whole values, or rings of the halo would show as steps.
                if (sum + count > 0.5 * total) return value - 0.5 + (0.5 * total - sum) / count;
                sum += count;
            }
            return 1;
        });
        for (let y = 0, i = 0; y < height; ++y)
            for (let x = 0; x < width; ++x, ++i)
                if (values[i] > 0)
                    values[i] = Math.min(255, Math.max(1, Math.round(values[i] - medians[Math.min(rings - 1, ringOf(x, y))] + kGround)));
        return values;
    }

    /** Grey values of the background and of a bright spot. */
    greyLevels(number: number): [number, number] {
        const counts = new Uint32Array(256);
        const values = this.frame(number);
        for (const value of values) ++counts[value];
        const total = values.length - counts[0];
        const level = (share: number) => {
            let sum = 0;
            for (let value = 1; value < 256; ++value) {
                sum += counts[value];
                if (sum >= share * total) return value;
            }
            return 255;
        };
        return [level(0.7), Math.max(level(0.7) + 10, level(0.997))];
    }

    /** Pixels of the frame in pixels of the picture. */
    toPicture(pixel: number): number {
        return (pixel + 0.5) / this.data.bin - 0.5;
    }

    /** The surroundings of a place in a frame; null outside. */
    cutOut(number: number, column: number, row: number): HTMLElement | null {
        if (number < 0 || number >= this.count) return null;
        const { width, height } = this.data;
        const x = Math.round(this.toPicture(column));
        const y = Math.round(this.toPicture(row));
        if (x < 0 || y < 0 || x >= width || y >= height) return null;
        const half = Math.max(10, Math.min(24, Math.round(28 / this.data.bin)));
        const edge = 2 * half + 1;
        const canvas = make('canvas', { class: 'cutout', width: edge, height: edge, role: 'img', 'aria-label': 'The spot on its frame' });
        const context = canvas.getContext('2d');
        if (!context) return null;
        const pixels = context.createImageData(edge, edge);
        const values = this.frame(number);
        const [black, white] = this.greyLevels(number);
        for (let j = 0; j < edge; ++j)
            for (let i = 0; i < edge; ++i) {
                const u = x - half + i;
                const v = y - half + j;
                const inside = u >= 0 && v >= 0 && u < width && v < height;
                const share = inside ? Math.min(1, Math.max(0, (values[v * width + u] - black) / (white - black))) : 0;
                const grey = isDark() ? 20 + 235 * share : 255 - 245 * share;
                pixels.data.set([grey, grey, grey, 255], 4 * (j * edge + i));
            }
        context.putImageData(pixels, 0, 0);
        return make('figure', { class: 'spot' }, canvas, make('figcaption', {}, `${edge * this.data.bin} pixels of frame ${number + 1}`));
    }
}

export function patternsGroup(store: PatternStore): HTMLElement {
    const { data } = store;
    const picture = new Picture('A frame with predicted and observed spots');
    const text = make('p', { class: 'faint', 'aria-live': 'polite' });
    let number = Math.floor(store.count / 2);
    let contrast = 1;
    let withPredicted = true;
    let withObserved = true;
    let withAxis = true;

    const spots = (list: SpotList, draw: (x: number, y: number, i: number) => void) => {
        for (let i = list.start[number]; i < list.start[number + 1]; ++i)
            draw(store.toPicture(list.x[i] / kPlaceUnit), store.toPicture(list.y[i] / kPlaceUnit), i);
    };
    const overlay = (context: CanvasRenderingContext2D, place: Placement) => {
        const { categories, ink } = palette();
        const radius = Math.max(4, (data.radius / data.bin) * place.scale);
        context.lineWidth = 1.5;
        if (withPredicted)
            spots(store.predicted, (x, y, i) => {
                const crystal = store.predicted.crystal?.[i] ?? 1;
                context.strokeStyle = categories[crystalCategory(crystal)];
                ring(context, place.x(x), place.y(y), radius);
            });
        if (withObserved) {
            context.strokeStyle = categories[1];
            spots(store.observed, (x, y) => {
                const [u, v] = [place.x(x), place.y(y)];
                line(context, u - 3.5, v, u + 3.5, v);
                line(context, u, v - 3.5, u, v + 3.5);
            });
        }
        const [cx, cy] = data.centres[number].map((pixel) => store.toPicture(pixel));
        if (withAxis) {
            const angle = (data.axis * Math.PI) / 180;
            const reach = 2 * Math.max(data.width, data.height);
            context.strokeStyle = ink;
            context.setLineDash([7, 5]);
            line(context, place.x(cx + reach * Math.sin(angle)), place.y(cy - reach * Math.cos(angle)),
                place.x(cx - reach * Math.sin(angle)), place.y(cy + reach * Math.cos(angle)));
            context.setLineDash([]);
            context.lineWidth = 2;
            ring(context, place.x(cx), place.y(cy), 6);
        }
    };
    const show = () => {
        const [black, white] = store.greyLevels(number);
        picture.set({ width: data.width, height: data.height, values: store.frame(number) }, black,
            black + (white - black) / contrast, overlay);
        const predicted = store.predicted.start[number + 1] - store.predicted.start[number];
        const observed = store.observed.start[number + 1] - store.observed.start[number];
        text.textContent = `Frame ${number + 1} of ${store.count}, tilt ${fixed(data.tilts[number], 2)}\u00b0: ${
            counted(predicted, 'predicted spot')}; ${counted(observed, 'observed one')} gave the geometry`;
    };
    picture.hover = (at) => {
        if (!at || !store.predicted.h) return;
        let nearest = -1;
        let least = (1.5 * data.radius) / data.bin;
        spots(store.predicted, (x, y, i) => {
            const away = Math.hypot(x - at[0], y - at[1]);
            if (away < least) [least, nearest] = [away, i];
        });
        const { h, k, l } = store.predicted;
        picture.canvas.title = nearest >= 0 && h && k && l ? hklText([h[nearest], k[nearest], l[nearest]]) : '';
    };
    const frames = slider('Frame', 1, store.count, 1, number + 1, (v) => String(v), (v) => {
        number = v - 1;
        show();
    });
    picture.canvas.addEventListener('keydown', (event) => {
        if (event.key === 'n') setSlider(frames, number + 2);
        if (event.key === 'p') setSlider(frames, number);
    });
    show();
    picture.canvas.style.aspectRatio = `${data.width} / ${data.height}`;
    return make('div', { class: 'pattern-row' }, make('div', {}, picture.element, text),
        make('div', { class: 'controls column' }, frames,
            slider('Contrast', -10, 10, 1, 0, (v) => fixed(1.25 ** v, 1), (v) => {
                contrast = 1.25 ** v;
                show();
            }),
            checkbox('predicted (rings)', true, (on) => { withPredicted = on; show(); }),
            checkbox('observed (crosses)', true, (on) => { withObserved = on; show(); }),
            checkbox('axis and centre', true, (on) => { withAxis = on; show(); }),
            make('p', { class: 'faint' }, 'The halo of the direct beam is taken off. Point at a ring to read its indices; with the picture in focus, n and p go to the next and the previous frame, wheel or + \u2212 zoom.',
                data.bin > 1 ? ` ${data.bin} \u00d7 ${data.bin} pixels of the frame are one here.` : '')));
}
