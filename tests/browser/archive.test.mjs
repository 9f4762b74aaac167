// An archive in Debian's Chromium, from a folder as from a web server: every kind of page is shown
// without an error, a request elsewhere or a finding of axe, and the search finds.
//   DL_BUILD: the build folder with bin/dlctl; DL_SHOTS: where screenshots go, none when not set
import assert from 'node:assert/strict';
import fs from 'node:fs';
import http from 'node:http';
import os from 'node:os';
import path from 'node:path';
import { createRequire } from 'node:module';
import { after, before, test } from 'node:test';
import { pathToFileURL } from 'node:url';
import { chromium } from 'playwright-core';
import { makeArchive } from './make_archive.mjs';

const require = createRequire(import.meta.url);
const axe = fs.readFileSync(require.resolve('axe-core/axe.min.js'), 'utf8');
const build = process.env.DL_BUILD || path.resolve(import.meta.dirname, '../../build/asan');
const shots = process.env.DL_SHOTS;
const kTypes = { '.html': 'text/html', '.css': 'text/css', '.js': 'text/javascript', '.svg': 'image/svg+xml',
    '.xml': 'application/atom+xml', '.png': 'image/png', '.txt': 'text/plain' };

let folder, html, browser, server, port;
const found = {};  // kind of page -> path below html

before(async () => {
    folder = fs.mkdtempSync(path.join(os.tmpdir(), 'dl-browser-'));
    html = makeArchive(folder, path.join(build, 'bin', 'dlctl'));
    for (const name of fs.readdirSync(html, { recursive: true })) {
        if (!name.endsWith('.html')) continue;
        const heading = /<h1><bdi>(.*?)<\/bdi>/s.exec(fs.readFileSync(path.join(html, name), 'utf8'))?.[1];
        if (name.startsWith('p/') && heading === 'Zucchini pictures') found.attachment = name;
        if (name.startsWith('p/') && heading === 'Newsletter') found.html = name;
        if (name.startsWith('p/') && heading?.startsWith('WWWW')) found.long = name;
        if (name.startsWith('p/') && heading === 'Re: A long conversation') found.reply ??= name;
        if (name.startsWith('t/') && heading === 'A long conversation') found.thread = name;
        if (name.startsWith('a/') && heading === 'Anna Bell') found.author = name;
    }
    server = http.createServer((request, response) => {
        const name = path.normalize(decodeURIComponent(request.url.split('?')[0]));
        const file = path.join(html, name.endsWith('/') ? name + 'index.html' : name);
        response.setHeader('Content-Type', kTypes[path.extname(file)] || 'application/octet-stream');
        if (fs.existsSync(file)) response.end(fs.readFileSync(file));
        else response.writeHead(404).end();
    });
    await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
    port = server.address().port;
    browser = await chromium.launch({ executablePath: '/usr/bin/chromium', headless: true,
        args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
            '--disable-component-update', '--disable-sync'] });
});

after(async () => {
    await browser?.close();
    server?.close();
    if (folder) fs.rmSync(folder, { recursive: true, force: true });
});

// Opens a page and keeps what it did wrong: errors on the console, requests outside the folder.
async function open(base, name, options = {}) {
    const context = await browser.newContext({ viewport: { width: 1100, height: 900 }, ...options });
    const page = await context.newPage();
    page.wrong = [];
    page.on('console', (line) => { if (['error', 'warning'].includes(line.type())) page.wrong.push(line.text()); });
    page.on('pageerror', (error) => page.wrong.push(String(error)));
    page.on('request', (request) => { if (!request.url().startsWith(base)) page.wrong.push(request.url()); });
    page.on('response', (response) => { if (response.status() >= 400) page.wrong.push(response.url()); });
    page.on('requestfailed', (request) => page.wrong.push('failed: ' + request.url()));
    await page.goto(base + name);
    return page;
}

const bases = () => ({ folder: pathToFileURL(html).href + '/', server: `http://127.0.0.1:${port}/` });
const kPages = () => ({ front: 'index.html', month: 'month/2025-10.html', threads: 'threads/index.html',
    'threads-month': 'threads/2025-10.html', thread: found.thread, posting: found.attachment, reply: found.reply,
    html: found.html, long: found.long, authors: 'authors/index.html', author: found.author, search: 'search.html' });
const kLooks = { light: {}, dark: { colorScheme: 'dark' }, phone: { viewport: { width: 360, height: 740 } },
    'phone-dark': { viewport: { width: 360, height: 740 }, colorScheme: 'dark' } };

async function findings(page) {
    // The pages allow no script from outside; the check is put in by the debugger, which asks nobody.
    await page.evaluate(axe);
    const result = await page.evaluate(() => window.axe.run(document, { resultTypes: ['violations'], preload: false }));
    return result.violations.map((one) => `${one.impact}: ${one.id}: ${one.nodes.map((node) => node.html).slice(0, 3).join(' | ')}`);
}

for (const [look, options] of Object.entries(kLooks)) {
    test(`every kind of page, ${look}`, async () => {
        for (const [kind, name] of Object.entries(kPages())) {
            assert.ok(name, `there is a page of kind ${kind}`);
            const page = await open(bases().folder, name, options);
            assert.equal(await page.title() === 'ran', false);
            const width = await page.evaluate(() => [document.documentElement.scrollWidth, window.innerWidth]);
            assert.ok(width[0] <= width[1], `${kind} is ${width[0]} wide on a screen of ${width[1]}`);
            assert.equal(await page.getByRole('main').count(), 1);
            assert.equal(await page.getByRole('heading', { level: 1 }).count(), 1);
            assert.deepEqual(await findings(page), [], kind);
            if (shots) await page.screenshot({ path: path.join(shots, `${kind}-${look}.png`), fullPage: kind !== 'long' });
            assert.deepEqual(page.wrong, [], kind);
            await page.context().close();
        }
    });
}

test('dark pages are dark, light ones light', async () => {
    for (const [colorScheme, dark] of [['dark', true], ['light', false]]) {
        const page = await open(bases().folder, 'index.html', { colorScheme });
        const paper = await page.evaluate(() => getComputedStyle(document.body).backgroundColor.match(/\d+/g).map(Number));
        assert.equal(paper[0] < 128, dark, `paper ${paper}`);
        await page.context().close();
    }
});

for (const where of ['folder', 'server']) {
    test(`a reader's way, from a ${where}`, async () => {
        const base = bases()[where];
        const page = await open(base, 'index.html');
        await page.getByRole('link', { name: 'Zucchini pictures' }).click();
        await page.waitForSelector('article');
        assert.equal(await page.getByRole('heading', { level: 1 }).textContent(), 'Zucchini pictures');
        const hrefs = await page.locator('.files a').evaluateAll((links) => links.map((link) => link.getAttribute('href')));
        assert.deepEqual(hrefs.map((href) => href.replace(/.*\//, '')), ['1-Gr_te_Zucchini.png', '2-page_html.txt']);
        await page.locator('.steps a[rel=prev]').first().click();
        await page.waitForSelector('article');
        assert.equal(await page.getByRole('heading', { level: 1 }).textContent(), 'Newsletter');
        assert.match(await page.locator('article').textContent(), /programme <https:\/\/example\.org\/spring> is out/);
        await page.goto(base + found.reply);
        const quotation = page.locator('details').first();
        assert.equal(await quotation.locator('.text').isVisible(), false);
        await quotation.locator('summary').click();
        assert.equal(await quotation.locator('.text').isVisible(), true);
        await page.getByRole('link', { name: 'The whole conversation' }).click();
        await page.waitForSelector('.tree');
        assert.equal(await page.locator('.tree .title').count(), 17);
        assert.equal((await page.content()).includes('anna@example.com'), false);
        assert.deepEqual(page.wrong, []);
        await page.context().close();
    });

    test(`search, from a ${where}`, async () => {
        const base = bases()[where];
        const page = await open(base, 'index.html');
        await page.getByRole('searchbox').fill('ZUCCHINI bert');
        await page.keyboard.press('Enter');
        await page.waitForFunction(() => document.getElementById('status')?.textContent.includes('found'));
        assert.equal(await page.locator('#status').textContent(), '1 posting found:');
        assert.equal(await page.locator('#found .title').textContent(), 'Zucchini pictures');
        await page.getByRole('searchbox').fill('thank');
        await page.getByRole('button', { name: 'Search' }).click();
        await page.waitForFunction(() => document.getElementById('status').textContent.startsWith('The newest'));
        assert.equal(await page.locator('#found li').count(), 20);
        await page.getByRole('button', { name: 'Show older ones' }).click();
        await page.waitForFunction(() => document.getElementById('status').textContent === '37 postings found:');
        assert.equal(await page.locator('#found li').count(), 37);
        await page.getByRole('searchbox').fill('<b>nothing</b>');
        await page.keyboard.press('Enter');
        await page.waitForFunction(() => document.getElementById('status').textContent === 'Nothing found.');
        await page.getByRole('searchbox').fill('chloe DUBOIS');  // é is found by e
        await page.keyboard.press('Enter');
        await page.waitForFunction(() => document.getElementById('status').textContent.includes('found:'));
        if (shots) await page.screenshot({ path: path.join(shots, `search-found-${where}.png`) });
        assert.deepEqual(await findings(page), []);
        await page.locator('#found .title').first().click();
        await page.waitForSelector('article');
        assert.deepEqual(page.wrong, []);
        await page.context().close();
    });
}

test('the keyboard reaches the content first, and everything works without script', async () => {
    const page = await open(bases().folder, 'index.html', { javaScriptEnabled: false });
    await page.keyboard.press('Tab');
    await page.keyboard.press('Enter');
    assert.match(page.url(), /#content$/);
    await page.goto(bases().folder + 'search.html');
    assert.match(await page.locator('main').innerText(), /needs JavaScript/);
    assert.equal(await page.locator('#search').isVisible(), false);
    await page.context().close();
});

test('no attachment runs anything, whatever it is called', async () => {
    const page = await open(bases().folder, 'index.html');
    const folderName = path.join(html, found.attachment.replace('.html', ''));
    for (const extension of ['txt', 'log', 'csv', 'diff', 'patch', 'asc', 'ics', 'vcf', 'pdf', 'png', 'zip', 'doc', 'mp4', 'bin']) {
        const file = path.join(folderName, 'x.' + extension);
        fs.writeFileSync(file, '<!DOCTYPE html><html><script>document.title="ran"</script></html>');
        await page.goto(pathToFileURL(file).href).catch(() => {});  // what is not shown is downloaded
        assert.notEqual(await page.title(), 'ran', extension);
        fs.rmSync(file);
    }
    await page.context().close();
});
