// Asks for the access token once; a token the service refused is said to be
// wrong rather than asked for again in silence.
import { token } from '../api.js';
import { el, fill, heading } from '../dom.js';

export function renderToken(view, refused, done) {
  const input = el('input', { type: 'password', id: 'token', autocomplete: 'current-password', required: true });
  const form = el('form', { class: 'token' },
    el('label', { for: 'token' }, 'Access token '), input, ' ', el('button', { type: 'submit' }, 'Continue'));
  form.addEventListener('submit', (e) => {
    e.preventDefault();
    token.set(input.value);
    done();
  });
  fill(view, heading('Access token'),
    el('p', {}, 'This service needs the access token it was started with.'),
    refused ? el('p', { class: 'error', role: 'alert' }, 'That token is wrong: the service refused it.') : null,
    form);
  input.focus();
}
