// Puts program and style into one page without data: dist/report.html, into which vrk writes what a run found.
//   node build.mjs [FOLDER]
import { build } from 'esbuild';
import { mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

const here = dirname(fileURLToPath(import.meta.url));
const folder = process.argv[2] ?? join(here, 'dist');

async function bundled(entry, loader) {
    const result = await build({
        entryPoints: [join(here, 'src', entry)],
        absWorkingDir: here,
        bundle: true,
        write: false,
        minify: true,
        charset: 'ascii',
        format: 'iife',
        target: 'es2020',
        legalComments: 'none',
        loader,
    });
    return result.outputFiles[0].text.trim();
}

function licenceOf(name) {
    const path = join(here, 'node_modules', name);
    const about = JSON.parse(readFileSync(join(path, 'package.json'), 'utf8'));
    const text = about.license === 'Unlicense' ? readFileSync(join(here, 'licences', name), 'utf8')
                                               : readFileSync(join(path, 'LICENSE'), 'utf8');
    return `${name} ${about.version}, ${about.license}\n\n${text.trim()}\n`;
}

const program = (await bundled('main.ts', {})).replaceAll('</script', '<\\/script');
const style = await bundled('style.css', {});
const licences = ['fflate', 'ogl', 'uplot'].map(licenceOf).join('\n----\n\n');
const policy = "default-src 'none'; script-src 'unsafe-inline'; style-src 'unsafe-inline'; img-src data: blob:";
const page = `<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy" content="${policy}">
<title>vrk report</title>
<style>${style}</style>
</head>
<body>
<main id="page"><noscript>This page draws with JavaScript, which is switched off here. The same numbers are in
summary.json and the tables beside it.</noscript></main>
<!-- the data -->
<!--
Parts of this page are other people's work:

${licences.replaceAll('--', '- -')}
-->
<script>${program}</script>
</body>
</html>
`;
if (/[^\x00-\x7f]/.test(page)) throw new Error('the page is not plain ASCII');
mkdirSync(folder, { recursive: true });
writeFileSync(join(folder, 'report.html'), page);
console.log(`${join(folder, 'report.html')}: ${Math.round(page.length / 1024)} kB`);
