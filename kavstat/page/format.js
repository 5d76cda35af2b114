// ---- Figures as text. Sizes are in powers of 1024, as everywhere in kavstat.

const noFigure = "–";

function isKnown(value) {
  return value !== null && value !== undefined && Number.isFinite(value);
}

function sizeText(bytes) {
  if (Math.abs(bytes) < 1000) {
    return `${bytes.toFixed(0)} B`;
  }
  const endings = ["KiB", "MiB", "GiB", "TiB", "PiB", "EiB"];
  let unit = 0;
  let value = bytes / 1024;
  // What would be rounded to 1000.0 takes the next unit.
  while (Math.abs(value) >= 999.95 && unit + 1 < endings.length) {
    value /= 1024;
    ++unit;
  }
  return `${value.toFixed(1)} ${endings[unit]}`;
}

function countText(count) {
  if (Math.abs(count) >= 1e7) {
    return count.toExponential(2);
  }
  const isWhole = count === Math.floor(count);
  return count.toFixed(Math.abs(count) < 100 && !isWhole ? 1 : 0);
}

function latencyText(seconds) {
  return seconds < 1 ? `${(seconds * 1000).toFixed(3)} ms` : `${seconds.toFixed(2)} s`;
}

// The two largest units: "3d10h".
function ageText(seconds) {
  const units = [[86400, "d"], [3600, "h"], [60, "m"], [1, "s"]];
  let rest = Math.max(Math.floor(seconds), 0);
  const parts = [];
  for (const [length, letter] of units) {
    const count = Math.floor(rest / length);
    rest %= length;
    if (count > 0 && parts.length < 2) {
      parts.push(`${count}${letter}`);
    }
  }
  return parts.join(" ") || "0s";
}

function twoDigits(number) {
  return String(number).padStart(2, "0");
}

// "2023-11-14 22:13:20" in the browser's time zone.
function timeText(seconds) {
  const date = new Date(seconds * 1000);
  if (!isKnown(date.getTime())) {
    return String(seconds);
  }
  const day = `${date.getFullYear()}-${twoDigits(date.getMonth() + 1)}-${twoDigits(date.getDate())}`;
  return `${day} ${clockText(seconds)}`;
}

// "22:13:20"
function clockText(seconds) {
  const date = new Date(seconds * 1000);
  return `${twoDigits(date.getHours())}:${twoDigits(date.getMinutes())}:${twoDigits(date.getSeconds())}`;
}

// Texts for values, by the unit's word in documents.
const unitTexts = {
  bytes: sizeText,
  bytes_per_second: (value) => `${sizeText(value)}/s`,
  kilobytes: (value) => sizeText(value * 1024),
  megabytes: (value) => sizeText(value * 1048576),
  count: countText,
  count_per_second: (value) => `${countText(value)}/s`,
  percent: (value) => `${value.toFixed(1)}%`,
  seconds: latencyText,
  age: ageText,
  time: timeText,
};

// value: a number, a text, or null for an unknown one.
function valueText(value, unit) {
  if (typeof value === "string") {
    return value;
  }
  if (!isKnown(value)) {
    return noFigure;
  }
  return unit in unitTexts ? unitTexts[unit](value) : String(value);
}
