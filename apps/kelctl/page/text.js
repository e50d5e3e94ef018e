"use strict";

// Elements and texts. What the story says becomes text nodes and nothing else.

const byId = (id) => document.getElementById(id);
const kSvg = byId("patterns").namespaceURI;
const kLongest = 4000;

function fill(node, attributes, children) {
  for (const [name, value] of Object.entries(attributes || {})) {
    if (value !== undefined && value !== false) node.setAttribute(name, value === true ? "" : value);
  }
  for (const child of children.flat()) {
    if (child !== undefined && child !== null && child !== "") node.append(child);
  }
  return node;
}

const make = (tag, attributes, ...children) => fill(document.createElement(tag), attributes, children);
const makeSvg = (tag, attributes, ...children) => fill(document.createElementNS(kSvg, tag), attributes, children);

const listOf = (value) => (Array.isArray(value) ? value : []);
const number = (value, otherwise) => (Number.isFinite(value) ? value : otherwise);
const counted = (n) => n.toLocaleString("en");
const plural = (n, one, many) => `${counted(n)} ${n === 1 ? one : many || one + "s"}`;

function escaped(character) {
  const code = character.charCodeAt(0);
  if (code === 10) return "\\n";
  if (code === 9) return "\\t";
  return code < 256 ? "\\x" + code.toString(16).padStart(2, "0") : "\\u" + code.toString(16).padStart(4, "0");
}

/** A text as it is shown: what would change the line or its direction is written out, and none is endless. */
function shown(value) {
  const text = typeof value === "string" ? value : plain(value);
  const cut = text.length > kLongest ? `${text.slice(0, kLongest)}… (${counted(text.length)} characters)` : text;
  // eslint-disable-next-line no-control-regex
  return cut.replace(/[\u0000-\u001f\u007f-\u009f\u061c\u200e\u200f\u2028\u2029\u202a-\u202e\u2066-\u2069\ufeff]/g, escaped);
}

/** A value of the story in one line; integers that were kept apart by exactIntegers() come out as they were. */
function plain(value) {
  if (value === undefined || value === null) return "";
  if (typeof value === "string") return value;
  if (typeof value !== "object") return String(value);
  if (typeof value.exactInteger === "string") return value.exactInteger;
  return JSON.stringify(value).replace(/\{"exactInteger":"(-?\d+)"\}/g, "$1");
}

function argument(value) {
  return value === null ? "(null)" : typeof value === "string" ? `"${value}"` : plain(value);
}

/** Integers that a double cannot hold are wrapped before they are parsed, so that every digit is shown. */
function exactIntegers(json) {
  if (!/[[,:]-?(?:\d{17,}|9\d{15})[,\]}]/.test(json)) return json;
  return json.replace(/"(?:[^"\\]|\\.)*"|-?\d+(?:\.\d+)?(?:[eE][-+]?\d+)?/g, (token) =>
    /^-?\d{16,}$/.test(token) && !Number.isSafeInteger(Number(token)) ? `{"exactInteger":"${token}"}` : token);
}

function isoParts(exact) {
  const us = Math.round(exact);
  const ms = Math.floor(us / 1000);
  const date = new Date(ms);
  if (Number.isNaN(date.getTime())) return undefined;
  const iso = date.toISOString();
  const day = iso.indexOf("T");
  return { day: iso.slice(0, day), time: iso.slice(day + 1, -1) + String(us - ms * 1000).padStart(3, "0") };
}

/** 2026-01-01 00:00:01.000000 */
function timeText(us) {
  const parts = isoParts(us);
  return parts ? `${parts.day} ${parts.time}` : String(us);
}

/** 00:00:01.25: as exact as the distance between two labels asks. */
function tickText(us, distance) {
  const parts = isoParts(us);
  if (!parts) return "";
  if (distance >= 86400e6 || us % 86400e6 === 0) return parts.day;
  if (distance >= 60e6) return parts.time.slice(0, 5);
  const digits = distance >= 1e6 ? 0 : Math.ceil(-Math.log10(distance / 1e6) - 1e-9);
  return parts.time.slice(0, digits ? 9 + digits : 8);
}

const kUnits = [["d", 86400e6], ["h", 3600e6], ["min", 60e6], ["s", 1e6], ["ms", 1e3], ["µs", 1]];

/** 1 d 2 h; 1.5 s; 250 µs: two units at most. */
function spanText(us) {
  if (!(us > 0)) return "0 s";
  const at = kUnits.findIndex(([, size]) => us >= size);
  if (at < 0) return "0 s";
  const [unit, size] = kUnits[at];
  if (at >= 3) return `${Number((us / size).toFixed(3))} ${unit}`;
  const rest = Math.floor((us % size) / kUnits[at + 1][1]);
  return `${Math.floor(us / size)} ${unit}` + (rest ? ` ${rest} ${kUnits[at + 1][0]}` : "");
}

const byName = new Intl.Collator("en", { numeric: true }).compare;
