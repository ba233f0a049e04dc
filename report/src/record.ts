// What was given, what was used, what it cost and what was warned of.

import type { Result, Summary } from './data';
import { copyButton, make, table } from './dom';
import { fixed, significant } from './format';

const kStages: [string, string][] = [
    ['read', 'read'], ['preprocess', 'centre, background'], ['tilt_axis', 'tilt axis'], ['reconstruct', 'reconstruct'],
    ['search', 'find reflections'], ['cell', 'search the cell'], ['index', 'index and refine'], ['integrate', 'measure intensities'],
];

const kParameterNames: Record<string, string> = {
    threshold: 'threshold of the reflections (counts)', cell_threshold: 'threshold that gave the lattice (counts)',
    zero_beam: 'radius about the direct beam that is left out (voxels)', min_voxels: 'smallest reflection (voxels)',
    min_length: 'shortest difference vector (voxels)', max_length: 'longest difference vector (voxels)',
    clustering: 'clustering', eps: 'radius of the clustering (voxels)', min_points: 'vectors that make a cluster',
    voltage_kv: 'high tension (kV)',
};

function cost(summary: Summary): HTMLElement {
    const { seconds, memory_mib: memory } = summary;
    const total = Math.max(seconds.total, 1e-3);
    const bar = (share: number) => make('span', { class: 'bar', style: `width:${(100 * Math.min(1, share)).toFixed(1)}%` });
    const rows = kStages.map(([key, name]) => [name, fixed(seconds[key], 2), ...(memory ? [fixed(memory[key], 0)] : []), bar(seconds[key] / total)]);
    rows.push(['total', fixed(seconds.total, 2), ...(memory ? [fixed(summary.peak_memory_mib, 0)] : []), '']);
    return table(`Time by step; at most ${fixed(summary.peak_memory_mib, 0)} MiB of memory`,
        ['step', 'seconds', ...(memory ? ['memory so far (MiB)'] : []), ''], rows);
}

function series(summary: Summary): HTMLElement {
    const { input, tilt_axis: axis, volume, intensities } = summary;
    const rows: [string, string][] = [
        ['frames', `${input.nz} of ${input.nx} \u00d7 ${input.ny} pixels`],
        ['tilts (\u00b0)', `${fixed(input.tilt_first, 2)} to ${fixed(input.tilt_last, 2)}`],
        ['pixel size (1/\u00c5)', significant(input.pixel_size * 1e-10, 6)],
        ['tilt axis of the volume (\u00b0)', `${fixed(axis.angle_deg, 3)} (${axis.source})`],
        ['volume (voxels)', volume.dims.join(' \u00d7 ')],
    ];
    if (intensities) {
        const { mode, detector, rocking, geometry } = intensities;
        rows.push(['rotation', `${mode.name}${mode.found ? '' : ', as told'}`],
            ['counts of an electron', significant(detector.gain, 3)],
            ['saturation (counts)', detector.saturation > 0 ? String(detector.saturation) : 'none'],
            ['width of a spot (pixels)', significant(detector.spot_sigma_px, 3)],
            ['width of a rocking curve (1/\u00c5)', significant(rocking.width, 3)],
            ['mosaicity (\u00b0)', significant(rocking.mosaicity_deg, 3)],
            ['residual of the spots (pixels)', significant(geometry.residual_px, 3)]);
    }
    return table('Series', ['', 'value'], rows);
}

export function recordGroup(result: Result): HTMLElement {
    const { summary } = result;
    const { program, inputs, parameters, warnings } = summary;
    return make('div', {},
        make('h3', {}, 'Warnings'),
        warnings.length > 0 ? make('ul', { class: 'warnings' }, warnings.map((text: string) => make('li', {}, text))) : make('p', { class: 'faint' }, 'None.'),
        program
            ? make('div', {}, make('h3', {}, `Command, vrk ${program.version}`),
                make('div', { class: 'command' }, make('code', {}, program.command), copyButton(() => program.command, 'Copy the command')))
            : null,
        make('div', { class: 'tables' },
            inputs ? table('Files that were read', ['file', 'bytes', 'CRC-32'],
                inputs.map((file: Summary) => [file.path, String(file.bytes), file.crc32])) : null,
            table('Parameters', ['', 'value'], Object.entries(parameters).map(([key, value]) =>
                [kParameterNames[key] ?? key, value === null ? 'own' : typeof value === 'number' ? significant(value, 5) : String(value)])),
            series(summary), cost(summary),
            summary.cell.candidates.length > 0
                ? table('Lattice types that fit', ['type', 'misfit (\u00b0)', 'a', 'b', 'c', '\u03b1', '\u03b2', '\u03b3'],
                    summary.cell.candidates.map((one: Summary) => [one.bravais, fixed(one.misfit_deg, 2),
                        ...['a', 'b', 'c'].map((key) => fixed(one[key], 3)), ...['alpha', 'beta', 'gamma'].map((key) => fixed(one[key], 2))]))
                : null));
}
