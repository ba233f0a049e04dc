// Curves over an axis, with uPlot.

import uPlot from 'uplot';
import { make } from './dom';
import { onTheme, palette } from './theme';

const kFont = '13px system-ui, -apple-system, "Segoe UI", "DejaVu Sans", sans-serif';
const kHeight = 250;

export interface Curve {
    name: string;
    values: (number | null)[];
    /** Of the palette's categories. */
    colour: number;
    points?: boolean;
    line?: boolean;
    dash?: number[];
    /** As the legend says a value. */
    text?: (value: number) => string;
}

export interface PlotOptions {
    title: string;
    xLabel: string;
    x: number[];
    curves: Curve[];
    /** Text of a place on the axis. */
    xText?: (value: number) => string;
    /** Values that have to be on the axis. */
    yLow?: number;
    yHigh?: number;
}

const number = (value: number): string => String(Number(value.toPrecision(5)));
const short = (value: number): string =>
    Math.abs(value) >= 1e6 ? `${number(value / 1e6)} M` : Math.abs(value) >= 1e4 ? `${number(value / 1e3)} k` : number(value);

function settings(options: PlotOptions, width: number): uPlot.Options {
    const { ink, line, categories } = palette();
    const xText = options.xText ?? number;
    const axis = { stroke: ink, font: kFont, labelFont: kFont, grid: { stroke: line, width: 1 }, ticks: { stroke: line, width: 1 } };
    return {
        width, height: kHeight,
        cursor: { y: false, drag: { x: true, y: false } },
        scales: {
            x: { time: false },
            y: {
                range: (_plot, low, high) => {
                    const least = Math.min(options.yLow ?? Infinity, low ?? 0);
                    const most = Math.max(options.yHigh ?? -Infinity, high ?? 1);
                    const pad = 0.06 * (most - least || 1);
                    return [least === options.yLow ? least : least - pad, most + pad];
                },
            },
        },
        axes: [
            { ...axis, label: options.xLabel, labelSize: 22, size: 34, values: (_plot, splits) => splits.map(xText) },
            { ...axis, values: (_plot, splits) => splits.map(short), size: (_plot, values) => 22 + 8 * Math.max(2, ...(values ?? []).map((text) => text.length)) },
        ],
        series: [
            { label: options.xLabel, value: (_plot, value) => (value === null ? '' : xText(value)) },
            ...options.curves.map((curve): uPlot.Series => ({
                label: curve.name,
                stroke: categories[curve.colour],
                width: curve.line === false ? 0 : 2,
                dash: curve.dash,
                points: { show: curve.points ?? false, size: 6, fill: categories[curve.colour] },
                paths: curve.line === false ? () => null : undefined,
                value: (_plot, value) => (value === null ? '' : (curve.text ?? number)(value)),
            })),
        ],
    };
}

/** A plot with its title; draws itself anew when the page changes its width or colours. */
export function plot(options: PlotOptions): HTMLElement {
    const holder = make('div', { class: 'plot-area' });
    const element = make('figure', { class: 'plot' }, make('figcaption', {}, options.title), holder);
    let drawn: uPlot | null = null;
    const draw = () => {
        const width = holder.clientWidth;
        if (width < 50) return;
        drawn?.destroy();
        const data = [options.x, ...options.curves.map((curve) => curve.values)] as uPlot.AlignedData;
        drawn = new uPlot(settings(options, width), data, holder);
    };
    onTheme(draw);
    new ResizeObserver(() => {
        if (!drawn || drawn.width !== holder.clientWidth) draw();
    }).observe(holder);
    return element;
}

/** Calls when an element comes near to the window for the first time, or the page is printed. */
export function whenSeen(element: HTMLElement, work: () => void): void {
    let done = false;
    const once = () => {
        if (done) return;
        done = true;
        observer.disconnect();
        work();
    };
    const observer = new IntersectionObserver((entries) => {
        if (entries.some((entry) => entry.isIntersecting)) once();
    }, { rootMargin: '400px' });
    observer.observe(element);
    window.addEventListener('beforeprint', once);
}
