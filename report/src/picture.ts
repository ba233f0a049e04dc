// A grey picture with drawings over it, which can be enlarged and moved.

import { make } from './dom';
import { isDark, isPrinting, onTheme, palette } from './theme';

export interface GreyImage {
    width: number;
    height: number;
    /** 0: nothing was recorded; 1 to 255 otherwise. */
    values: Uint8Array;
}

/** Places of the picture on the screen. */
export interface Placement {
    x(column: number): number;
    y(row: number): number;
    /** Pixels of the screen in one of the picture. */
    scale: number;
    width: number;
    height: number;
}

export type Overlay = (context: CanvasRenderingContext2D, place: Placement) => void;

export class Picture {
    readonly element: HTMLElement;
    readonly canvas: HTMLCanvasElement;
    /** Called with a place of the picture when the pointer is there, or null when it leaves. */
    hover: ((place: [number, number] | null) => void) | null = null;

    private readonly raster = document.createElement('canvas');
    private image: GreyImage | null = null;
    private black = 0;
    private white = 255;
    private overlay: Overlay = () => undefined;
    private centre: [number, number] = [0.5, 0.5];
    private zoom = 1;
    private pending = false;

    constructor(label: string) {
        this.canvas = make('canvas', { class: 'picture', tabindex: 0, role: 'img', 'aria-label': label });
        this.element = make('div', { class: 'picture-frame' }, this.canvas);
        this.listen();
        onTheme(() => this.show());
        new ResizeObserver(() => this.redraw()).observe(this.element);
    }

    set(image: GreyImage, black: number, white: number, overlay: Overlay): void {
        this.image = image;
        this.black = black;
        this.white = white;
        this.overlay = overlay;
        this.show();
    }

    /** The picture as it stands on the screen. */
    url(): string {
        this.drawNow();
        return this.canvas.toDataURL('image/png');
    }

    redraw(): void {
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

    private show(): void {
        if (!this.image) return;
        const { width, height, values } = this.image;
        this.raster.width = width;
        this.raster.height = height;
        const context = this.raster.getContext('2d');
        if (!context) return;
        const pixels = context.createImageData(width, height);
        const table = this.greyTable();
        const words = new Uint32Array(pixels.data.buffer);
        for (let i = 0; i < words.length; ++i) words[i] = table[values[i]];
        context.putImageData(pixels, 0, 0);
        this.redraw();
    }

    /** Spots are dark on paper and bright on a dark page. */
    private greyTable(): Uint32Array {
        const dark = isDark();
        const table = new Uint32Array(256);
        for (let value = 1; value < 256; ++value) {
            const share = Math.min(1, Math.max(0, (value - this.black) / Math.max(1, this.white - this.black)));
            const grey = Math.round(dark ? 20 + 235 * share : 255 - 245 * share);
            table[value] = (255 << 24) | (grey << 16) | (grey << 8) | grey;
        }
        const [r, g, b] = dark ? [38, 46, 58] : [226, 232, 240];
        table[0] = (255 << 24) | (b << 16) | (g << 8) | r;
        return table;
    }

    private placement(): Placement | null {
        if (!this.image) return null;
        const { clientWidth: width, clientHeight: height } = this.canvas;
        const scale = Math.min(width / this.image.width, height / this.image.height) * this.zoom;
        const left = 0.5 * width - this.centre[0] * this.image.width * scale;
        const top = 0.5 * height - this.centre[1] * this.image.height * scale;
        return {
            x: (column) => left + (column + 0.5) * scale, y: (row) => top + (row + 0.5) * scale, scale, width, height,
        };
    }

    private drawNow(): void {
        const place = this.placement();
        const context = this.canvas.getContext('2d');
        if (!place || !context || !this.image || place.width < 1) return;
        const density = Math.min(2, window.devicePixelRatio || 1);
        this.canvas.width = Math.round(place.width * density);
        this.canvas.height = Math.round(place.height * density);
        context.scale(density, density);
        context.fillStyle = palette().paper;
        context.fillRect(0, 0, place.width, place.height);
        context.imageSmoothingEnabled = place.scale < 10;
        context.imageSmoothingQuality = 'high';
        context.drawImage(this.raster, place.x(-0.5), place.y(-0.5), this.image.width * place.scale, this.image.height * place.scale);
        context.font = '13px system-ui, sans-serif';
        this.overlay(context, place);
    }

    private zoomAt(factor: number, x: number, y: number): void {
        const before = this.placement();
        if (!before || !this.image) return;
        const zoom = Math.min(16, Math.max(1, this.zoom * factor));
        const change = zoom / this.zoom - 1;
        this.zoom = zoom;
        const size = before.scale * (1 + change);
        this.move((x - 0.5 * before.width) * change / size, (y - 0.5 * before.height) * change / size);
    }

    /** Pixels of the picture. */
    private move(columns: number, rows: number): void {
        if (!this.image) return;
        const limit = (value: number) => Math.min(1, Math.max(0, value));
        this.centre = this.zoom <= 1 ? [0.5, 0.5]
            : [limit(this.centre[0] + columns / this.image.width), limit(this.centre[1] + rows / this.image.height)];
        this.redraw();
    }

    private listen(): void {
        const { canvas } = this;
        let last: [number, number] | null = null;
        canvas.addEventListener('wheel', (event) => {
            // A page that is scrolled past shall not be caught.
            if (document.activeElement !== canvas) return;
            event.preventDefault();
            this.zoomAt(Math.exp(-0.0015 * event.deltaY), event.offsetX, event.offsetY);
        }, { passive: false });
        canvas.addEventListener('pointerdown', (event) => {
            last = [event.clientX, event.clientY];
            canvas.setPointerCapture(event.pointerId);
        });
        canvas.addEventListener('pointerup', () => { last = null; });
        canvas.addEventListener('pointermove', (event) => {
            const place = this.placement();
            if (!place) return;
            if (last) {
                this.move((last[0] - event.clientX) / place.scale, (last[1] - event.clientY) / place.scale);
                last = [event.clientX, event.clientY];
            }
            this.hover?.([(event.offsetX - place.x(0)) / place.scale, (event.offsetY - place.y(0)) / place.scale]);
        });
        canvas.addEventListener('pointerleave', () => this.hover?.(null));
        canvas.addEventListener('dblclick', () => this.reset());
        canvas.addEventListener('keydown', (event) => {
            const step = 20 / (this.placement()?.scale ?? 1);
            const moves: Record<string, () => void> = {
                '+': () => this.zoomAt(1.25, 0.5 * canvas.clientWidth, 0.5 * canvas.clientHeight),
                '-': () => this.zoomAt(0.8, 0.5 * canvas.clientWidth, 0.5 * canvas.clientHeight),
                '0': () => this.reset(),
                ArrowLeft: () => this.move(-step, 0), ArrowRight: () => this.move(step, 0),
                ArrowUp: () => this.move(0, -step), ArrowDown: () => this.move(0, step),
            };
            const move = moves[event.key];
            if (!move) return;
            event.preventDefault();
            move();
        });
    }

    private reset(): void {
        this.zoom = 1;
        this.centre = [0.5, 0.5];
        this.redraw();
    }
}

/** Text that is read on any ground. */
export function label(context: CanvasRenderingContext2D, text: string, x: number, y: number, colour: string): void {
    context.lineWidth = 4;
    context.lineJoin = 'round';
    context.strokeStyle = palette().paper;
    context.strokeText(text, x, y);
    context.fillStyle = colour;
    context.fillText(text, x, y);
}

/** A bar of a round length. \param pixels  of the screen in one 1/Angstrom */
export function scaleBar(context: CanvasRenderingContext2D, pixels: number, place: Placement): void {
    const steps = [0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2];
    const length = [...steps].reverse().find((step) => step * pixels < 0.3 * place.width) ?? steps[0];
    const x = 14;
    const y = place.height - 16;
    context.lineWidth = 6;
    context.strokeStyle = palette().paper;
    line(context, x, y, x + length * pixels, y);
    context.lineWidth = 3;
    context.strokeStyle = palette().ink;
    line(context, x, y, x + length * pixels, y);
    label(context, `${length} 1/\u00c5`, x, y - 8, palette().ink);
}

export function line(context: CanvasRenderingContext2D, x0: number, y0: number, x1: number, y1: number): void {
    context.beginPath();
    context.moveTo(x0, y0);
    context.lineTo(x1, y1);
    context.stroke();
}

export function ring(context: CanvasRenderingContext2D, x: number, y: number, radius: number): void {
    context.beginPath();
    context.arc(x, y, radius, 0, 2 * Math.PI);
    context.stroke();
}
