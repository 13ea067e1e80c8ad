// Times come as Unix seconds; shown relative, with the exact time on hover.
const units = [
  ['year', 365 * 86400], ['month', 30 * 86400], ['day', 86400],
  ['hour', 3600], ['minute', 60], ['second', 1],
];
const relative = new Intl.RelativeTimeFormat('en', { numeric: 'auto' });
const exact = new Intl.DateTimeFormat('en-GB', {
  year: 'numeric', month: '2-digit', day: '2-digit',
  hour: '2-digit', minute: '2-digit', second: '2-digit', timeZoneName: 'short',
});

export const now = () => Math.floor(Date.now() / 1000);

export function ago(t, at = now()) {
  const d = t - at;
  for (const [unit, s] of units) {
    if (Math.abs(d) >= s || unit === 'second') return relative.format(Math.round(d / s), unit);
  }
}

export const exactTime = (t) => exact.format(new Date(t * 1000));
export const isoTime = (t) => new Date(t * 1000).toISOString();

export function duration(s) {
  if (s < 1) return `${Math.round(s * 1000)} ms`;
  return s < 60 ? `${Math.round(s * 10) / 10} s` : `${Math.floor(s / 60)} min ${Math.round(s % 60)} s`;
}

// A day as the date inputs give it (YYYY-MM-DD, the browser's time zone), and
// back to the Unix seconds of its first and last second.
export function day(t) {
  const d = new Date(t * 1000);
  const two = (n) => String(n).padStart(2, '0');
  return `${d.getFullYear()}-${two(d.getMonth() + 1)}-${two(d.getDate())}`;
}

function dayAt(text, plus) {
  const m = /^(\d{4})-(\d{2})-(\d{2})$/.exec(text || '');
  return m ? new Date(Number(m[1]), Number(m[2]) - 1, Number(m[3]) + plus).getTime() / 1000 : null;
}

export const dayStart = (text) => (dayAt(text, 0) === null ? null : Math.max(0, dayAt(text, 0)));
export const dayEnd = (text) => (dayAt(text, 1) === null ? null : dayAt(text, 1) - 1);
