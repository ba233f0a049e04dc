// Puts the page together.

import { comparison } from './compare';
import { readResults } from './data';
import type { Result } from './data';
import { button, choice, make } from './dom';
import { instrumentGroup } from './instrument';
import { PatternStore, patternsGroup } from './patterns';
import { recordGroup } from './record';
import { sectionsGroup } from './sections';
import { SpaceView } from './space';
import { statisticsGroup } from './statistics';
import { startTheme, toggleTheme } from './theme';
import { lightOf, verdict } from './verdict';

interface Group {
    id: string;
    name: string;
    content: () => HTMLElement | null;
    missing?: string;
}

function groupsOf(result: Result): Group[] {
    const store = result.patterns ? new PatternStore(result.patterns) : null;
    return [
        { id: 'verdict', name: 'Verdict', content: () => verdict(result) },
        { id: 'space', name: 'Reciprocal space', content: () => (result.reflections ? new SpaceView(result, store).element : null),
            missing: 'The folder of the result has no reflections.csv.' },
        { id: 'sections', name: 'Sections', content: () => sectionsGroup(result),
            missing: 'This page has no sections: the run drew no pictures, or its page is not in the folder.' },
        { id: 'patterns', name: 'Patterns', content: () => (store ? patternsGroup(store) : null),
            missing: 'This page has no patterns: it compares results, or the run measured no intensities on the frames or drew no pictures.' },
        { id: 'statistics', name: 'Statistics', content: () => statisticsGroup(result) },
        { id: 'instrument', name: 'Axis and lattice', content: () => instrumentGroup(result) },
        { id: 'record', name: 'Record', content: () => recordGroup(result) },
    ];
}

/** What a group shows; what is wrong where its data are damaged. */
function contentOf(group: Group): HTMLElement {
    try {
        return group.content() ?? make('p', { class: 'faint' }, group.missing ?? '');
    } catch (error) {
        return make('p', { class: 'faint' }, `This part cannot be shown: ${String(error)}`);
    }
}

function sectionOf(group: Group): HTMLElement {
    return make('section', { id: group.id }, make('h2', {}, group.name), contentOf(group));
}

function header(title: string, groups: Group[]): HTMLElement {
    return make('header', {}, make('h1', { title }, title),
        make('nav', { 'aria-label': 'Parts of the page' }, groups.map((group) => make('a', { href: `#${group.id}` }, group.name))),
        button('\u25d0', 'Light or dark', toggleTheme));
}

function showOne(page: HTMLElement, result: Result): void {
    const groups = groupsOf(result);
    document.title = `${result.name}: ${lightOf(result.summary).word.toLowerCase()}`;
    page.replaceChildren(header(result.name, groups), ...groups.map(sectionOf));
}

function showSeveral(page: HTMLElement, results: Result[]): void {
    document.title = `${results.length} results`;
    const detail = make('div', {});
    const groups = groupsOf(results[0]);
    const show = (number: number) => detail.replaceChildren(...groupsOf(results[number]).map(sectionOf));
    const comparing: Group = { id: 'comparison', name: 'Comparison', content: () => comparison(results) };
    page.replaceChildren(header(`${results.length} results`, [comparing, ...groups]), sectionOf(comparing),
        make('section', { class: 'which' }, choice('Result in detail', results.map((result, i): [string, string] => [String(i), result.name]), '0',
            (value) => show(Number(value)))),
        detail);
    show(0);
}

function start(): void {
    startTheme();
    const page = document.getElementById('page') as HTMLElement;
    const results = readResults().filter((result) => result.summary);
    if (results.length === 0) page.replaceChildren(make('p', {}, 'This page holds no data.'));
    else if (results.length === 1) showOne(page, results[0]);
    else showSeveral(page, results);
}

start();
