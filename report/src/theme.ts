// Light and dark, and the colours of the drawings. Categories have the colours of M. Okabe and K. Ito, which
// people with any kind of colour vision tell apart; the scale of values is the one named viridis, which grows
// evenly in brightness.

export interface Palette {
    paper: string;
    ink: string;
    faint: string;
    line: string;
    categories: string[];
}

const kLight: Palette = {
    paper: '#ffffff', ink: '#1b1f24', faint: '#6a737d', line: '#d0d7de',
    categories: ['#0072b2', '#d55e00', '#009e73', '#cc79a7', '#e69f00', '#56b4e9'],
};
const kDark: Palette = {
    paper: '#14181d', ink: '#e6edf3', faint: '#9aa4af', line: '#3a424c',
    categories: ['#56b4e9', '#e69f00', '#2cc295', '#e59cc4', '#f0e442', '#7f9fe0'],
};

/** The category of what belongs to a crystal, from 1; that of what belongs to none. */
export const crystalCategory = (crystal: number): number => (crystal === 1 ? 0 : crystal % 6);
export const kNone = 1;

type Listener = () => void;
const listeners: Listener[] = [];
const system = window.matchMedia('(prefers-color-scheme: dark)');
let chosen: 'light' | 'dark' | null = null;
let printing = false;

export const isDark = (): boolean => !printing && (chosen === null ? system.matches : chosen === 'dark');
/** While the page is printed; what is drawn then has to be drawn at once. */
export const isPrinting = (): boolean => printing;
export const palette = (): Palette => (isDark() ? kDark : kLight);

function apply(): void {
    document.documentElement.dataset.theme = isDark() ? 'dark' : 'light';
    for (const listener of listeners) listener();
}

export function startTheme(): void {
    system.addEventListener('change', apply);
    window.addEventListener('beforeprint', () => { printing = true; apply(); });
    window.addEventListener('afterprint', () => { printing = false; apply(); });
    apply();
}

export function toggleTheme(): void {
    chosen = isDark() ? 'light' : 'dark';
    apply();
}

/** Called whenever the colours change. */
export const onTheme = (listener: Listener): void => { listeners.push(listener); };

export type Rgb = [number, number, number];

export const rgbOf = (hex: string): Rgb => {
    const value = parseInt(hex.slice(1), 16);
    return [(value >> 16) / 255, ((value >> 8) & 255) / 255, (value & 255) / 255];
};

const kStops: Rgb[] = ['#440154', '#414487', '#2a788e', '#22a884', '#7ad151', '#fde725'].map(rgbOf);

/** The scale of values, 0 to 1. The end that would vanish before the paper is left out. */
export function valueColour(share: number): Rgb {
    const [from, to] = isDark() ? [0.15, 1] : [0, 0.88];
    const place = (from + (to - from) * Math.min(1, Math.max(0, share || 0))) * (kStops.length - 1);
    const first = Math.min(kStops.length - 2, Math.floor(place));
    return [0, 1, 2].map((i) => kStops[first][i] + (place - first) * (kStops[first + 1][i] - kStops[first][i])) as Rgb;
}

export const cssColour = (rgb: Rgb): string => `rgb(${rgb.map((part) => Math.round(255 * part)).join(',')})`;
