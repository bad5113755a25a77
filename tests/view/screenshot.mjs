// A picture of a viewer page as headless Chromium draws it (README's picture is made this way):
//   node tests/view/screenshot.mjs PAGE.html[#frame=N] OUT.png [WIDTHxHEIGHT]
import { resolve } from 'node:path';
import { pathToFileURL } from 'node:url';
import puppeteer from 'puppeteer-core';

const [target, out, size = '1280x720'] = process.argv.slice(2);
if (!target || !out) {
  console.error('usage: node tests/view/screenshot.mjs PAGE.html[#frame=N] OUT.png [WIDTHxHEIGHT]');
  process.exit(2);
}
const [file, hash = ''] = target.split('#');
const [width, height] = size.split('x').map(Number);
const browser = await puppeteer.launch({
  executablePath: process.env.KELVARA_CHROMIUM || '/usr/bin/chromium',
  headless: true,
  args: ['--no-sandbox', '--use-angle=swiftshader', '--enable-unsafe-swiftshader'],
});
const page = await browser.newPage();
await page.setViewport({ width, height });
page.on('pageerror', (e) => console.error(`page error: ${e.message}`));
await page.goto(pathToFileURL(resolve(file)).href + (hash ? `#${hash}` : ''), { waitUntil: 'load' });
await page.waitForFunction(() => window.kelvaraView !== undefined, { timeout: 30000 });
if (!(await page.evaluate(() => window.kelvaraView.ready))) {
  console.error(`the page did not start: ${await page.evaluate(() => window.kelvaraView.error)}`);
  process.exit(1);
}
await page.evaluate(() => window.kelvaraView.render());
await page.screenshot({ path: out });
await browser.close();
