// Pieces of the page. Text that comes from data is set as text, never as markup.

type Child = Node | string | number | null | undefined | false;
type Attributes = Record<string, string | number | boolean | ((event: Event) => void) | undefined>;

const kSvg = 'http://www.w3.org/2000/svg';

function fill(element: Element, attributes: Attributes, children: (Child | Child[])[]): void {
    for (const [name, value] of Object.entries(attributes)) {
        if (value === undefined || value === false) continue;
        if (typeof value === 'function') element.addEventListener(name, value);
        else element.setAttribute(name, value === true ? '' : String(value));
    }
    for (const child of children.flat())
        if (child !== null && child !== undefined && child !== false)
            element.append(child instanceof Node ? child : document.createTextNode(String(child)));
}

/** An element with attributes (functions are listeners) and children. */
export function make<Name extends keyof HTMLElementTagNameMap>(
    name: Name, attributes: Attributes = {}, ...children: (Child | Child[])[]): HTMLElementTagNameMap[Name] {
    const element = document.createElement(name);
    fill(element, attributes, children);
    return element;
}

export function makeSvg(name: string, attributes: Attributes = {}, ...children: (Child | Child[])[]): SVGElement {
    const element = document.createElementNS(kSvg, name) as SVGElement;
    fill(element, attributes, children);
    return element;
}

export function button(label: string, title: string, action: () => void): HTMLButtonElement {
    return make('button', { type: 'button', title, click: action }, label);
}

async function toClipboard(text: string): Promise<void> {
    try {
        await navigator.clipboard.writeText(text);
    } catch {
        // Pages that come from a file may not be trusted with the clipboard.
        const area = make('textarea', { class: 'offscreen' });
        area.value = text;
        document.body.append(area);
        area.select();
        document.execCommand('copy');
        area.remove();
    }
}

/** A button that copies a text. */
export function copyButton(text: () => string, title: string): HTMLButtonElement {
    const copy = button('Copy', title, () => {
        void toClipboard(text()).then(() => {
            copy.textContent = 'Copied';
            window.setTimeout(() => (copy.textContent = 'Copy'), 1200);
        });
    });
    copy.classList.add('copy');
    return copy;
}

/** A table with a button that copies it for a spreadsheet. Cells that are numbers are set to the right. */
export function table(caption: string, head: string[], rows: (Child | Child[])[][], isLong = false): HTMLElement {
    const textOf = (row: HTMLTableRowElement) =>
        Array.from(row.cells).map((cell) => (cell.textContent ?? '').trim()).join('\t');
    const numeric = head.map((_, column) =>
        rows.length > 0 && rows.every((row) => /^[-+]?[\d.,]*(\(\d+\))?( ?%)?$/.test(String(row[column] ?? ''))));
    const body = make('table', {},
        head.some((text) => text !== '')
            ? make('thead', {}, make('tr', {}, head.map((text, i) => make('th', { class: numeric[i] ? 'number' : '', scope: 'col' }, text))))
            : null,
        make('tbody', {}, rows.map((row) =>
            make('tr', {}, row.map((cell, i) => make('td', { class: numeric[i] ? 'number' : '' }, cell))))));
    const copy = copyButton(() => Array.from(body.rows).map(textOf).join('\n'), 'Copy the table for a spreadsheet');
    return make('figure', { class: 'table' },
        make('figcaption', {}, make('span', {}, caption), copy),
        make('div', { class: isLong ? 'scroll long' : 'scroll', tabindex: isLong ? 0 : undefined }, body));
}

/** A slider with its name and value. */
export function slider(name: string, min: number, max: number, step: number, value: number,
                       text: (value: number) => string, changed: (value: number) => void): HTMLLabelElement {
    const shown = make('output', {}, text(value));
    const input = make('input', { type: 'range', min, max, step, value, 'aria-label': name });
    input.addEventListener('input', () => {
        shown.textContent = text(input.valueAsNumber);
        changed(input.valueAsNumber);
    });
    return make('label', { class: 'slider' }, make('span', {}, name), input, shown);
}

/** Moves a slider as a user would. */
export function setSlider(label: HTMLLabelElement, value: number): void {
    const input = label.querySelector('input');
    if (!input) return;
    input.valueAsNumber = value;
    input.dispatchEvent(new Event('input'));
}

export function choice(name: string, options: [string, string][], value: string,
                       changed: (value: string) => void): HTMLLabelElement {
    const select = make('select', { 'aria-label': name },
        options.map(([key, text]) => make('option', { value: key, selected: key === value }, text)));
    select.addEventListener('change', () => changed(select.value));
    return make('label', { class: 'choice' }, make('span', {}, name), select);
}

export function checkbox(name: string, value: boolean, changed: (value: boolean) => void): HTMLLabelElement {
    const input = make('input', { type: 'checkbox', checked: value });
    input.addEventListener('change', () => changed(input.checked));
    return make('label', { class: 'checkbox' }, input, name);
}

/** Offers a file to the user. */
export function download(url: string, name: string): void {
    const link = make('a', { href: url, download: name });
    document.body.append(link);
    link.click();
    link.remove();
}
