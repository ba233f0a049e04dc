// Puts the page together.

import { readResults } from './data';
import type { Result } from './data';
import { button, make } from './dom';
import { PatternStore, patternsGroup } from './patterns';
import { SpaceView } from './space';
import { startTheme, toggleTheme } from './theme';
import { lightOf, verdict } from './verdict';

interface Group {
    id: string;
    name: string;
    content: () => HTMLElement | null;
    missing: string;
}

function groupsOf(result: Result): Group[] {
    const store = result.patterns ? new PatternStore(result.patterns) : null;
    return [
        { id: 'verdict', name: 'Verdict', content: () => verdict(result), missing: '' },
        { id: 'space', name: 'Reciprocal space', content: () => (result.reflections ? new SpaceView(result, store).element : null),
            missing: 'The folder has no reflections.csv.' },
        { id: 'patterns', name: 'Patterns', content: () => (store ? patternsGroup(store) : null),
            missing: 'The page of the run kept no patterns.' },
    ];
}

function show(result: Result): HTMLElement[] {
    return groupsOf(result).map((group) =>
        make('section', { id: group.id }, make('h2', {}, group.name), group.content() ?? make('p', { class: 'faint' }, group.missing)));
}

function start(): void {
    const results = readResults();
    const page = document.getElementById('page') as HTMLElement;
    startTheme();
    if (results.length === 0) {
        page.replaceChildren(make('p', {}, 'This page holds no data.'));
        return;
    }
    const result = results[0];
    document.title = `${result.name}: ${lightOf(result.summary).word}`;
    page.replaceChildren(make('header', {}, make('h1', {}, result.name),
        button('\u25d0', 'Light or dark', toggleTheme)), ...show(result));
}

start();
