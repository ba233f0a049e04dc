// The page in a browser: it loads, draws, answers and fits. Started by scripts/report.sh --test.
import assert from 'node:assert/strict';
import { execFileSync } from 'node:child_process';
import { copyFileSync, mkdirSync, mkdtempSync, readFileSync, rmSync, statSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after, before, test } from 'node:test';
import { chromium } from 'playwright-core';

const vrk = process.env.VRK;
const pictures = process.env.PICTURES;
const kName = '"><script>.mrc';
const kFlags = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
    '--disable-component-update', '--disable-sync', '--use-angle=swiftshader', '--enable-unsafe-swiftshader'];

let work;
let browser;

function run(...words) {
    return execFileSync(vrk, words, { cwd: work, encoding: 'utf8', stdio: ['ignore', 'pipe', 'pipe'] });
}

/** A page in a window; `faults` collects what must not happen. */
async function open(file, { width = 1280, scheme = 'light', using = browser } = {}) {
    const page = await using.newPage({ viewport: { width, height: 900 }, colorScheme: scheme });
    page.faults = [];
    page.on('pageerror', (error) => page.faults.push(`error: ${error.message}`));
    page.on('console', (message) => { if (message.type() === 'error') page.faults.push(`console: ${message.text()}`); });
    page.on('dialog', (dialog) => { page.faults.push('a script of the data ran'); void dialog.dismiss(); });
    page.on('request', (request) => { if (/^(https?|wss?|ftp):/.test(request.url())) page.faults.push(`request: ${request.url()}`); });
    await page.goto(`file://${join(work, file)}`);
    await page.waitForSelector('#record table');
    await page.waitForTimeout(300);
    return page;
}

/** How many colours a canvas has and which share of its pixels is not its commonest colour. */
const statistics = (canvas) => canvas.evaluate((element) => {
    const copy = document.createElement('canvas');
    [copy.width, copy.height] = [element.width, element.height];
    const context = copy.getContext('2d');
    context.drawImage(element, 0, 0);
    const words = new Uint32Array(context.getImageData(0, 0, copy.width, copy.height).data.buffer);
    const counts = new Map();
    for (const word of words) counts.set(word, (counts.get(word) ?? 0) + 1);
    return { colours: counts.size, drawn: 1 - Math.max(...counts.values()) / words.length };
});

async function reveal(page, selector) {
    await page.locator(selector).first().scrollIntoViewIfNeeded();
    await page.waitForTimeout(700);
}

async function moveSlider(page, name, value, within = 'body') {
    await page.locator(`${within} input[type=range][aria-label="${name}"]`).first().evaluate((input, to) => {
        input.value = String(to);
        input.dispatchEvent(new Event('input'));
    }, value);
    await page.waitForTimeout(250);
}

const shownReflections = async (page) => Number.parseInt(await page.locator('.legend .faint').textContent(), 10);

before(async () => {
    work = mkdtempSync(join(tmpdir(), 'vrk-report-'));
    mkdirSync(pictures, { recursive: true });
    const crystal = ['--cell', '7.1,8.4,6.2,90,104,90', '--centring', 'C', '--size', '160', '--dmin', '0.95', '--tilts', '-60:60:2'];
    run('simulate', '-o', kName, ...crystal, '--axis', '30', '--write-axis');
    run('run', kName, '-o', 'one');
    run('simulate', '-o', 'two.mrc', ...crystal, '--second-crystal', '0.8', '--second-turn', '23', '--ellipse', '0.012', '--axis', '40');
    run('run', 'two.mrc', '-o', 'two', '--tilt-axis', 'search');
    run('run', kName, '-o', 'bare', '--no-pictures', '--no-integration');
    run('report', 'one', 'two', 'bare', '-o', 'comparison.html');
    browser = await chromium.launch({ executablePath: '/usr/bin/chromium', args: kFlags });
});

after(async () => {
    await browser?.close();
    if (work) rmSync(work, { recursive: true });
});

test('the page loads without errors or requests and is no larger than it may be', async () => {
    for (const file of ['one/report.html', 'two/report.html', 'bare/report.html', 'comparison.html']) {
        const page = await open(file);
        assert.deepEqual(page.faults, [], file);
        assert.equal(await page.locator('#page script').count(), 0, 'no text became a script');
        await page.close();
        const size = statSync(join(work, file)).size;
        assert.ok(size < 9e6, `${file} has ${size} bytes`);
        const patterns = /data-block="patterns">(.*?)<\/script>/s.exec(readFileSync(join(work, file), 'utf8'))?.[1].length ?? 0;
        assert.ok(file === 'comparison.html' || size - patterns < 3e6, `${file} without patterns has ${size - patterns} bytes`);
    }
});

test('the verdict has the numbers of the summary', async () => {
    const summary = JSON.parse(readFileSync(join(work, 'one/summary.json'), 'utf8'));
    const page = await open('one/report.html');
    assert.equal(await page.locator('h1').textContent(), '"><script>');
    assert.equal(await page.locator('.light strong').textContent(), { high: 'Right', fair: 'Check', low: 'Wrong?' }[summary.confidence.level]);
    const shown = await page.locator('#verdict').textContent();
    assert.ok(shown.includes(`${summary.reflections.indexed} of ${summary.reflections.found} reflections`));
    assert.ok(shown.includes(summary.cell.conventional.bravais));
    const cell = await page.locator('.cell dd').allTextContents();
    ['a', 'b', 'c', 'alpha', 'beta', 'gamma'].forEach((name, i) => {
        const value = Number.parseFloat(cell[i]);
        assert.ok(Math.abs(value - summary.intensities.cell[name]) < 0.01, `${name}: ${cell[i]}`);
    });
    assert.equal(await shownReflections(page), summary.reflections.found);
    await page.close();
});

test('a triclinic cell of an unknown microscope leads to a calibration', async () => {
    run('simulate', '-o', 'bent.mrc', '--cell', '4.6,5.3,6.4,98,104,82', '--size', '128', '--dmin', '1.1', '--tilts', '-60:60:2', '--axis', '6', '--write-axis');
    run('run', 'bent.mrc', '-o', 'bent', '--no-pictures');
    const page = await open('bent/report.html');
    assert.match(await page.locator('.light').textContent(), /^\u2715Wrong\?There is such a crystal/);
    assert.match(await page.locator('.next code').textContent(), /^vrk calibrate \S+ -o (\S+) && vrk run bent\.mrc -o bent --distortion \1$/);
    await page.close();
});

test('reciprocal space is drawn, turns, filters, and a click names a reflection', async () => {
    const page = await open('one/report.html');
    const canvas = page.locator('canvas.space');
    await reveal(page, 'canvas.space');
    const first = await statistics(canvas);
    assert.ok(first.colours > 20 && first.drawn > 0.01 && first.drawn < 0.6, JSON.stringify(first));

    const all = await shownReflections(page);
    await moveSlider(page, 'Resolution', 120);
    const coarse = await shownReflections(page);
    assert.ok(coarse > 0 && coarse < all, `${coarse} of ${all}`);
    await moveSlider(page, 'Resolution', 200);
    await moveSlider(page, 'I/\u03c3 at least', 40);
    assert.ok(await shownReflections(page) < all);
    await moveSlider(page, 'I/\u03c3 at least', 0);
    assert.equal(await shownReflections(page), all);

    // Rows of reflections fall together when one looks along them.
    for (const extra of ['sphere', 'unrecorded wedge']) await page.getByLabel(extra).uncheck();
    await page.waitForTimeout(300);
    const across = await statistics(canvas);
    await page.getByRole('button', { name: 'c*', exact: true }).click();
    await page.waitForTimeout(300);
    const along = await statistics(canvas);
    assert.ok(along.drawn < 0.9 * across.drawn, `${along.drawn} of ${across.drawn}`);
    for (const colour of ['intensity', 'tilt', 'resolution', 'frame', 'significance', 'crystal', 'indexed'])
        await page.locator('#space select').first().selectOption(colour);

    const box = await canvas.boundingBox();
    let name = '';
    for (let x = 0.2; x < 0.8 && !/\d/.test(name); x += 0.02)
        for (let y = 0.3; y < 0.7 && !/\d/.test(name); y += 0.04) {
            await canvas.click({ position: { x: x * box.width, y: y * box.height } });
            name = (await page.locator('.card h3').allTextContents())[0] ?? '';
        }
    assert.match(name, /^-?\d+ -?\d+ -?\d+$/);
    assert.match(await page.locator('.card').textContent(), /d[\d.]+ \u00c5.*frame\d+/);
    assert.equal(await page.locator('.card canvas').count(), 1, 'with a picture of the spot');
    await canvas.press('ArrowLeft');
    await canvas.press('2');
    assert.deepEqual(page.faults, []);
    await page.close();
});

test('sections and patterns are drawn and follow their sliders', async () => {
    const page = await open('one/report.html');
    await reveal(page, '#sections canvas');
    const section = page.locator('#sections canvas').first();
    const before = await section.evaluate((element) => element.toDataURL());
    const drawn = await statistics(section);
    assert.ok(drawn.colours > 30 && drawn.drawn > 0.1, JSON.stringify(drawn));
    await moveSlider(page, 'Layer', 1);
    assert.equal(await page.locator('#sections h3').first().textContent(), 'hk1');
    assert.notEqual(await section.evaluate((element) => element.toDataURL()), before);
    await page.getByLabel('nodes').last().check();

    await reveal(page, '#patterns canvas');
    const pattern = page.locator('#patterns canvas').first();
    const spots = await statistics(pattern);
    assert.ok(spots.colours > 30, JSON.stringify(spots));
    await moveSlider(page, 'Frame', 7);
    assert.match(await page.locator('#patterns p[aria-live]').textContent(), /Frame 7 of 61, tilt -48/);
    await reveal(page, '#instrument canvas');
    assert.ok((await statistics(page.locator('#instrument canvas').first())).colours > 20);
    await reveal(page, '#statistics .u-wrap');
    assert.ok(await page.locator('#statistics canvas').count() >= 8);
    assert.deepEqual(page.faults, []);
    await page.close();
});

test('a searched axis shows its peak, two crystals both', async () => {
    const page = await open('two/report.html');
    assert.match(await page.locator('#instrument').textContent(), /Score around the peak, 40\.\d\d/);
    const crystals = JSON.parse(readFileSync(join(work, 'two/summary.json'), 'utf8')).crystals.length;
    if (crystals > 1) {
        await page.getByLabel('Show').selectOption('2');
        assert.ok(await shownReflections(page) > 20);
    }
    await page.close();
});

test('several results stand beside each other', async () => {
    const page = await open('comparison.html');
    const heads = await page.locator('#comparison thead th').allTextContents();
    assert.deepEqual(heads.slice(1), ['one', 'two', 'bare']);
    await page.getByLabel('Result in detail').selectOption('1');
    await page.waitForTimeout(300);
    assert.match(await page.locator('#record').textContent(), /two\.mrc/);
    assert.deepEqual(page.faults, []);
    await page.close();
});

test('without WebGL there is a picture all the same', async () => {
    const plain = await chromium.launch({ executablePath: '/usr/bin/chromium', args: [...kFlags.slice(0, -2), '--disable-3d-apis'] });
    const page = await open('one/report.html', { using: plain });
    await reveal(page, 'canvas.space');
    const drawn = await statistics(page.locator('canvas.space'));
    assert.ok(drawn.colours > 20 && drawn.drawn > 0.01, JSON.stringify(drawn));
    assert.deepEqual(page.faults, []);
    await plain.close();
});

test('fifty thousand reflections', async (context) => {
    mkdirSync(join(work, 'many'));
    copyFileSync(join(work, 'one/summary.json'), join(work, 'many/summary.json'));
    const [head, ...rows] = readFileSync(join(work, 'one/reflections.csv'), 'utf8').trim().split('\n');
    const lines = Array.from({ length: 50000 }, (_, i) => {
        const fields = rows[i % rows.length].split(',');
        for (const column of [4, 5, 6]) fields[column] = String(Number(fields[column]) + 0.3 * Math.sin(i * (column + 0.1)));
        return fields.join(',');
    });
    writeFileSync(join(work, 'many/reflections.csv'), [head, ...lines].join('\n'));
    run('report', 'many');
    const size = statSync(join(work, 'many/report.html')).size;
    const start = Date.now();
    const page = await open('many/report.html');
    const opened = Date.now() - start;
    await reveal(page, 'canvas.space');
    const turned = await page.locator('canvas.space').evaluate(async (canvas) => {
        const from = performance.now();
        for (let i = 0; i < 10; ++i) {
            canvas.dispatchEvent(new KeyboardEvent('keydown', { key: 'ArrowRight' }));
            await new Promise(requestAnimationFrame);
        }
        return (performance.now() - from) / 10;
    });
    context.diagnostic(`${Math.round(size / 1024)} kB, opened in ${opened} ms, ${turned.toFixed(1)} ms a view, drawn in software`);
    assert.ok(size < 5e6);
    assert.deepEqual(page.faults, []);
    await page.close();
});

for (const width of [360, 1024, 1920])
    for (const scheme of ['light', 'dark'])
        test(`the page fits ${width} pixels, ${scheme}`, async () => {
            const page = await open(width === 1024 ? 'two/report.html' : 'one/report.html', { width, scheme });
            for (const id of ['verdict', 'space', 'sections', 'patterns', 'statistics', 'instrument', 'record']) {
                await reveal(page, `#${id}`);
                if (id === 'sections' || id === 'instrument') await reveal(page, `#${id} canvas`);
                await page.locator(`#${id}`).screenshot({ path: join(pictures, `${width}-${scheme}-${id}.png`) });
            }
            assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= window.innerWidth), 'no scrolling to the side');
            const small = await page.evaluate(() => Array.from(document.querySelectorAll('#page *')).filter((element) =>
                Array.from(element.childNodes).some((node) => node.nodeType === 3 && node.textContent.trim()) &&
                Number.parseFloat(getComputedStyle(element).fontSize) < 12).map((element) => element.outerHTML.slice(0, 80)));
            assert.deepEqual(small, []);
            assert.equal(await page.evaluate(() => document.documentElement.dataset.theme), scheme);
            assert.deepEqual(page.faults, []);
            await page.close();
        });

test('it prints', async () => {
    const page = await open('one/report.html', { scheme: 'dark' });
    await page.pdf({ path: join(pictures, 'print.pdf'), format: 'A4', printBackground: true });
    assert.ok(statSync(join(pictures, 'print.pdf')).size > 5e4);
    await page.close();
});
