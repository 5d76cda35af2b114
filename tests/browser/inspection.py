"""What tests of the page run inside the browser."""

# An element's text has enough contrast to its ground: 4.5, and 3 for large text. Returns those that have not.
CONTRAST = """
const parse = (text) => (text.match(/[\\d.]+/g) ?? []).map(Number);
const light = ([r, g, b]) => { const f = (c) => (c / 255 <= 0.03928 ? c / 255 / 12.92 : ((c / 255 + 0.055) / 1.055) ** 2.4);
  return 0.2126 * f(r) + 0.7152 * f(g) + 0.0722 * f(b); };
const ground = (node) => { for (; node; node = node.parentElement) {
  const color = parse(getComputedStyle(node).backgroundColor); if (color.length === 3 || color[3] > 0) return color; }
  return [255, 255, 255]; };
const bad = new Set();
for (const node of document.querySelectorAll('body *')) {
  const own = [...node.childNodes].some((child) => child.nodeType === 3 && child.data.trim());
  if (!own || !node.checkVisibility() || node.closest('svg, script, noscript')) continue;
  const style = getComputedStyle(node);
  const [one, other] = [light(parse(style.color)), light(ground(node))].sort((a, b) => b - a);
  const size = parseFloat(style.fontSize);
  const least = size >= 24 || (size >= 18.66 && Number(style.fontWeight) >= 700) ? 3 : 4.5;
  if ((one + 0.05) / (other + 0.05) < least) bad.add(node.tagName + '.' + node.className + ' ' + node.textContent.slice(0, 20));
}
return [...bad];
"""

# Elements that are wider than the window and cannot be scrolled into sight, or whose text is cut.
OVERFLOW = """
const bad = [];
if (document.documentElement.scrollWidth > innerWidth) bad.push('page ' + document.documentElement.scrollWidth);
for (const node of document.querySelectorAll('.strip > div, .finding, .chart, .legend li, .badge, button')) {
  if (node.checkVisibility() && node.scrollWidth > node.clientWidth + 1 && node.clientWidth > 0)
    bad.push(node.className + ' ' + node.textContent.slice(0, 30));
}
return bad;
"""

# The time from a choice until the charts of it are drawn.
TIME_TO_CHARTS = """
const [value, done] = arguments;
const choice = document.querySelector('#range-choice');
const root = document.documentElement;
const before = Number(root.dataset.updates);
const started = performance.now();
choice.value = value;
choice.dispatchEvent(new Event('change'));
const look = () => Number(root.dataset.updates) > before
  ? requestAnimationFrame(() => requestAnimationFrame(() => done(performance.now() - started))) : setTimeout(look, 1);
look();
"""

# The times below a chart, and where they are.
AXIS = """
const root = document.getElementById(arguments[0]);
const left = root.getBoundingClientRect().left;
return [...root.querySelectorAll('.dygraph-axis-label-x')].map((each) =>
  [each.textContent, Math.round(each.getBoundingClientRect().left - left)]);
"""

# Runs before the page's scripts: the time at which the first chart was drawn.
MARK_FIRST_CHART = """
new MutationObserver((changes, observer) => {
  if (document.querySelector('.dygraph-axis-label')) {
    observer.disconnect();
    requestAnimationFrame(() => requestAnimationFrame(() => { window.drawnAt = performance.now(); }));
  }
}).observe(document, { childList: true, subtree: true });
"""

# What a page of another site gets of an address.
READ_FROM_ELSEWHERE = """
const [address, how, done] = arguments;
const load = (tag, attribute) => {
  const made = document.createElement(tag);
  made.onload = () => done(tag === 'iframe' && made.contentDocument === null ? 'refused' : 'loaded');
  made.onerror = () => done('refused');
  if (tag === 'link') made.rel = 'stylesheet';
  made[attribute] = address;
  document.body.append(made);
};
if (how === 'cors' || how === 'no-cors') {
  fetch(address, { mode: how }).then((answer) => answer.text()).then((text) => done(text === '' ? 'opaque' : 'read'),
    () => done('refused'));
} else {
  load(...{ script: ['script', 'src'], image: ['img', 'src'], frame: ['iframe', 'src'], style: ['link', 'href'] }[how]);
}
"""
