// The page as udtlab writes it: style, script and data put into the template.
import {readFileSync} from 'node:fs';

export const FOLDER = new URL('../../lab/report/page/', import.meta.url);
export const read = name => readFileSync(new URL(name, FOLDER), 'utf8');

export function fillPage(data) {
  const parts = {
    CSS: read('vendor/uPlot.min.css') + '\n' + read('report.css'),
    JS: read('vendor/uPlot.iife.min.js') + '\n' + read('report.js'),
    DATA: JSON.stringify(data).replaceAll('<', '\\u003c'),
  };
  return read('report.html').replace(/<!--UDT:(\w+)-->/g, (all, name) => parts[name]);
}
