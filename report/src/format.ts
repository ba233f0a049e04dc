// Numbers as a reader wants them.

/** 7.1234(12): the uncertainty in units of the last digit, one digit or two up to 19. */
export function withUncertainty(value: number, sigma: number): string {
    if (!(sigma > 0) || !isFinite(sigma)) return String(Number(value.toPrecision(6)));
    let digits = Math.max(0, -Math.floor(Math.log10(sigma)));
    if (Math.round(sigma * 10 ** (digits + 1)) <= 19) ++digits;
    const units = Math.round(sigma * 10 ** digits);
    return digits > 0 ? `${value.toFixed(digits)}(${units})` : `${value.toFixed(0)}(${Math.round(sigma)})`;
}

export const fixed = (value: number | null | undefined, digits: number): string =>
    value === null || value === undefined || !isFinite(value) ? '' : value.toFixed(digits);

export const percent = (share: number | null | undefined, digits = 0): string =>
    share === null || share === undefined || !isFinite(share) ? '' : `${(100 * share).toFixed(digits)} %`;

/** So many significant digits, without an exponent where that is readable. */
export function significant(value: number | null | undefined, digits = 4): string {
    if (value === null || value === undefined || !isFinite(value)) return '';
    if (value === 0) return '0';
    const size = Math.abs(value);
    return size >= 1e-4 && size < 1e7 ? String(Number(value.toPrecision(digits))) : value.toExponential(digits - 1);
}

/** A number of things. */
export const counted = (count: number, one: string, many = `${one}s`): string => `${count} ${count === 1 ? one : many}`;

/** 1 -2 0 */
export const hklText = (hkl: ArrayLike<number>): string => `${hkl[0]} ${hkl[1]} ${hkl[2]}`;
