'use strict';
const data = JSON.parse(document.getElementById('data').textContent);
const $ = id => document.getElementById(id);
const KIND_ERASE = 1, KIND_ECC = 2, KIND_DATA = 4, KIND_OOB = 8, KINDS = 16;
// Places in data.looks.
const UNTOUCHED = 0, ERASED = 1, WRITTEN = 2, BAD = 3, UNERASED = 4;

/// Makes an element; texts become text, never markup.
function make(tag, attributes, ...children) {
  const element = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes || {})) {
    if (name.startsWith('on')) element.addEventListener(name.slice(2), value);
    else if (value !== null && value !== false) element.setAttribute(name, value);
  }
  element.append(...children.filter(child => child !== null));
  return element;
}

const count = (number, noun) => `${number} ${noun}${number === 1 ? '' : 's'}`;
/// Begins a sentence, unless with the name of a file.
const capital = text => text.replace(/^[a-z](?=[a-z]*( |$))/, letter => letter.toUpperCase());
const hex = number => '0x' + number.toString(16);

/// Reads packed numbers: what goes along with them is given to `low`, if any.
function unpack(text, length, kinds = 1, low = null) {
  const bytes = atob(text);
  const numbers = new Int32Array(length);
  let at = 0, last = 0;
  for (let i = 0; i < length; ++i) {
    let word = 0, scale = 1, byte;
    do {
      byte = bytes.charCodeAt(at++);
      word += (byte & 0x7f) * scale;
      scale *= 128;
    } while (byte >= 0x80);
    const step = Math.floor(word / kinds);
    last += step % 2 ? -(step + 1) / 2 : step / 2;
    numbers[i] = last;
    if (low) low[i] = word % kinds;
  }
  return numbers;
}

/// The first place in a sorted list whose value is above a limit.
function placeAfter(list, limit, begin = 0, end = list.length, value = item => item) {
  while (begin < end) {
    const middle = (begin + end) >> 1;
    if (value(list[middle]) > limit) end = middle;
    else begin = middle + 1;
  }
  return begin;
}

const chip = data.chip;
const pagesPerBlock = chip.eraseSize / chip.pageSize;
const blockCount = chip.size / chip.eraseSize;
const changeCount = data.changeCount;

/// The chip at any change of the run. A time is the number of changes that are done.
class History {
  constructor() {
    const kinds = this.kinds = new Uint8Array(changeCount);
    this.pages = unpack(data.changes, changeCount, KINDS, kinds);
    this.blocks = this.pages.map(page => Math.floor(page / pagesPerBlock));
    this.lines = new Uint32Array(changeCount);
    let at = 0;
    for (const [length, line] of data.changeLines) this.lines.fill(line, at, at += length);
    // The changes of each block, in order: those of block b are order[starts[b]] to order[starts[b + 1] - 1].
    this.starts = new Uint32Array(blockCount + 1);
    for (const block of this.blocks) ++this.starts[block + 1];
    for (let block = 0; block < blockCount; ++block) this.starts[block + 1] += this.starts[block];
    const next = this.starts.slice();
    this.order = new Uint32Array(changeCount);
    // The state of its block after each change.
    this.after = new Uint8Array(changeCount);
    const states = new Uint8Array(blockCount);
    for (let change = 0; change < changeCount; ++change) {
      const block = this.blocks[change];
      this.order[next[block]++] = change;
      if (kinds[change] & KIND_ERASE) states[block] = ERASED;
      else if (states[block] === UNTOUCHED) states[block] = UNERASED;
      else if (states[block] === ERASED) states[block] = WRITTEN;
      this.after[change] = states[block];
    }
    // For each block, the time from which it is bad.
    this.badFrom = new Float64Array(blockCount).fill(Infinity);
    at = 0;
    for (const [length, mark] of data.marks) {
      if (mark === BAD) this.badFrom.fill(0, at, at + length);
      at += length;
    }
    for (const [time, block] of data.badMarks) this.badFrom[block] = time;
    this.facts = new Map(data.blocks.map(([block, ...facts]) => [block, facts]));
  }

  /// The number of changes of a block that are done.
  done(block, time) {
    return placeAfter(this.order, time - 1, this.starts[block], this.starts[block + 1]) - this.starts[block];
  }

  state(block, time) {
    if (this.badFrom[block] <= time) return BAD;
    const done = this.done(block, time);
    return done === 0 ? UNTOUCHED : this.after[this.order[this.starts[block] + done - 1]];
  }

  /// The line that changed a block last; 0 for none.
  line(block, time) {
    const done = this.done(block, time);
    return done === 0 ? 0 : this.lines[this.order[this.starts[block] + done - 1]];
  }

  /// What was programmed since the last erase: numbers of pages, and of those with ECC and OOB.
  programs(block, time) {
    const all = new Set(), ecc = new Set(), oob = new Set();
    for (let i = this.starts[block] + this.done(block, time) - 1; i >= this.starts[block]; --i) {
      const change = this.order[i];
      if (this.kinds[change] & KIND_ERASE) break;
      all.add(this.pages[change]);
      if (this.kinds[change] & KIND_ECC) ecc.add(this.pages[change]);
      if (this.kinds[change] & KIND_OOB) oob.add(this.pages[change]);
    }
    return {all: all.size, ecc: ecc.size, oob: oob.size};
  }

  /// The first time at which a block is changed; the end of the run for one that never is.
  firstTime(block) {
    return this.starts[block] < this.starts[block + 1] ? this.order[this.starts[block]] + 1 : changeCount;
  }
}

const history = data.changes ? new History() : null;
const lineOfTime = time => history && time > 0 ? history.lines[time - 1] : 0;

// Failures of sweeps: for each sweep a list of runs, by time.
for (const sweep of data.sweeps) {
  sweep.runsFailed = [];
  for (const group of sweep.failures) {
    group.count = 0;
    for (const item of group.cases) {
      item.numbers = unpack(item.numbers, item.count);
      item.times = item.times === null ? null : unpack(item.times, item.count);
      for (let i = 0; i < item.count; ++i) {
        const time = item.times ? item.times[i] : item.what !== 'fault' && history ? history.firstTime(item.numbers[i]) : null;
        sweep.runsFailed.push({sweep, group, item, number: item.numbers[i], time});
      }
      group.count += item.count;
    }
  }
  sweep.runsFailed.sort((a, b) => (a.time ?? Infinity) - (b.time ?? Infinity));
  sweep.runsFailed.forEach((run, place) => { run.place = place; run.group.first ??= run; });
}

const commandOf = run => run.item.command.join(run.number);
const blocksOf = run => run.item.what === 'case' || run.item.what === 'fault' || run.item.what === 'cut' ? [] : [run.number];

/// A failed run for people.
function describe(run) {
  const {item, number} = run;
  switch (item.what) {
  case 'cut': return `power lost at change ${number} (${item.torn})`;
  case 'bad': return `block ${number} bad`;
  case 'erase-fails': return `block ${number} worn out: erases fail`;
  case 'program-fails': return `block ${number} worn out: programs fail`;
  case 'fault': return `fault in ${item.fault} number ${number}`;
  default: return item.label || item.fault || 'one run';
  }
}

function say(text) { $('live').textContent = text; }

/// A command with a button that copies it, and perhaps more buttons.
function copyable(command, ...buttons) {
  const code = make('pre', {class: 'code', tabindex: 0, 'aria-label': 'Command'}, command);
  const button = make('button', {type: 'button', 'aria-label': 'Copy the command'}, 'Copy');
  button.addEventListener('click', async () => {
    try {
      await navigator.clipboard.writeText(code.textContent);
    } catch (refused) {
      const range = document.createRange();
      range.selectNodeContents(code);
      getSelection().removeAllRanges();
      getSelection().addRange(range);
      if (!document.execCommand('copy')) return say('The command is selected.');
    }
    button.textContent = 'Copied';
    say('The command is copied.');
    setTimeout(() => { button.textContent = 'Copy'; }, 2000);
  });
  return make('div', {class: 'command'}, code, make('div', {class: 'buttons'}, button, ...buttons));
}

// The verdict.

const isInterrupted = data.findings.some(finding => finding.kind === 'interrupted') || data.sweeps.some(sweep => sweep.interrupted);
const unbootable = data.sweeps.flatMap(sweep => sweep.unbootable.map(gap => ({...gap, sweep})));
const failedRuns = data.sweeps.reduce((sum, sweep) => sum + sweep.done - sweep.held, 0);
const severities = {error: 0, warning: 0, note: 0};
for (const finding of data.findings) ++severities[finding.severity];

/// "change 5", "changes 5 to 9".
const changesText = gap => gap.first === gap.last ? `change ${gap.first}` : `changes ${gap.first} to ${gap.last}`;

/// "line 2", "lines 2, 3".
const linesText = lines => `line${lines.length === 1 ? '' : 's'} ${lines.join(', ')}`;

/// Lines that select a slot before a later line has written it; reports of older versions have none.
const selectorsOf = gap => gap.selectedBy || [];

/// The flash that a line changes from one change to another, in whole blocks.
function placeText(gap) {
  if (!history) return '';
  let begin = Infinity, end = 0;
  for (let change = gap.first - 1; change < gap.last; ++change) {
    if (history.lines[change] !== gap.line) continue;
    begin = Math.min(begin, history.blocks[change]);
    end = Math.max(end, history.blocks[change] + 1);
  }
  return begin < end ? `, while ${hex(begin * chip.eraseSize)} to ${hex(end * chip.eraseSize - 1)} of the chip is changed` : '';
}

const interruptedText = sweep => sweep.runs ? `interrupted with ${count(sweep.runs - sweep.done, 'run')} to go` : 'interrupted before its first run';

function showVerdict() {
  $('update').textContent = `Update ${data.update}`;
  const isSafe = data.verdict === 'clean' && failedRuns === 0 && unbootable.length === 0 && !isInterrupted;
  $('verdict').className = isSafe ? 'safe' : 'unsafe';
  const early = [...new Set(unbootable.flatMap(selectorsOf))];
  $('headline').textContent =
    unbootable.length ? `NOT SAFE: a power cut in ${linesText([...new Set(unbootable.map(gap => gap.line))])} leaves a device that does not boot` +
      (early.length ? `, as ${linesText(early)} switch${early.length === 1 ? 'es' : ''} to the new system too early` : '')
    : failedRuns ? `NOT SAFE: ${count(failedRuns, 'rehearsed trouble')} did damage`
    : isInterrupted ? 'INCOMPLETE: interrupted before the end'
    : data.verdict !== 'clean' ? `NOT CLEAN: ${count(severities.error, 'error')}, ${count(severities.warning, 'warning')}`
    : data.sweeps.length ? 'CLEAN: no finding, and all rehearsed troubles passed'
    : 'CLEAN: this one run; no trouble was rehearsed';
  const fact = (text, look) => $('facts').append(make('li', {class: look}, text));
  const wrong = new Set(data.findings.filter(finding => finding.severity === 'error').map(finding => finding.line));
  const carried = data.lines.filter(line => line.result === 'clean' && !wrong.has(line.number)).length;
  fact(`The run: ${data.verdict === 'clean' ? 'clean' : 'not clean'}, ${carried} of ${count(data.lines.length, 'line')} carried out`,
       data.verdict === 'clean' ? 'good' : 'bad');
  for (const sweep of data.sweeps) {
    const title = {cut: 'Power cut, then the update again', bad: 'Bad blocks', faults: 'Failing requests', wear: 'Worn-out blocks', pairs: 'Pairs of troubles'}[sweep.kind];
    fact(`${title || sweep.kind}: ${sweep.held} of ${count(sweep.done, 'run')} passed` +
         (sweep.every > 1 ? ` (one in ${sweep.every} places)` : '') +
         (sweep.interrupted ? `, ${interruptedText(sweep)}` : ''),
         sweep.held === sweep.done && !sweep.interrupted ? 'good' : 'bad');
    const gaps = sweep.unbootable.reduce((sum, gap) => sum + gap.runs, 0);
    if (gaps) fact(`Power cut alone: does not boot after ${gaps} of ${sweep.done}`, 'bad');
    else if (sweep.bootChecked && !sweep.interrupted) fact('Power cut alone: boots after each', 'good');
    else if (sweep.kind === 'cut') fact('Whether the device boots was not checked', 'warn');
  }
  const missing = data.kinds.filter(kind => !data.sweeps.some(sweep => sweep.kind === kind));
  if (missing.length) fact(`Not rehearsed: ${missing.join(', ')}`, 'warn');
}

// Problems.

function lineTitle(severity, line, text) {
  return make('h3', {}, make('span', {class: 'tag'}, severity), line ? `Line ${line}: ` : 'The whole run',
              text ? make('code', {}, text) : '');
}

/// A button that shows something in the run, at a time that may be unknown.
function showButton(time, show) {
  return make('button', {type: 'button', onclick: () => { show(); $('run').scrollIntoView({block: 'start'}); }},
              time === null || !history ? 'Select' : `Show at change ${time}`);
}

function showProblems() {
  const box = $('problems');
  const add = (severity, word, source, parts) =>
    box.append(make('article', {class: `problem ${severity}`}, lineTitle(word, source.line, source.text), ...parts));
  for (const gap of unbootable) {
    const show = history ? [showButton(gap.first, () => { select(null); setTime(gap.first); })] : [];
    add('error', 'Does not boot', gap, [
      make('p', {}, `Power lost at ${changesText(gap)}${placeText(gap)} (${count(gap.runs, 'cut')} of ${gap.sweep.done}) ` +
           `leaves a device that does not boot, so that the update cannot run again: ${gap.why}.`),
      make('p', {class: 'dim'}, 'To reproduce, make the chip that does not boot:'), copyable(gap.command, ...show),
      ...(gap.change ? [make('p', {class: 'advice'}, `${capital(gap.change)}.`)] : [])]);
  }
  for (const sweep of data.sweeps) {
    if (sweep.interrupted) add('error', `sweep ${sweep.kind}`, {line: null, text: ''}, [make('p', {}, `The sweep was ${interruptedText(sweep)}.`)]);
    // One card for a line, with all that can happen there.
    const lines = new Map();
    for (const group of sweep.failures) lines.set(group.line, [...lines.get(group.line) || [], group]);
    for (const groups of lines.values()) {
      const advice = [...new Set(groups.map(group => group.change).filter(text => text))];
      add('error', `sweep ${sweep.kind}`, groups[0], [...groups.flatMap(group => [
        make('p', {}, `${capital(group.happens)} (${count(group.count, 'run')}).`),
        make('p', {class: 'dim'}, `To reproduce, with ${describe(group.first)}:`),
        copyable(commandOf(group.first), showButton(group.first.time, () => select(group.first)))]),
        ...advice.map(text => make('p', {class: 'advice'}, `${capital(text)}.`))]);
    }
    if (sweep.omitted) box.append(make('p', {class: 'dim'}, `${sweep.omitted} further failures of sweep ${sweep.kind} are in the JSON report only.`));
  }
  const order = ['error', 'warning', 'note'];
  const notes = make('details', {}, make('summary', {}, 'Notes'));
  const findings = [...data.findings].sort((a, b) => order.indexOf(a.severity) - order.indexOf(b.severity));
  for (const finding of findings) {
    const card = make('article', {class: `problem ${finding.severity}`}, lineTitle(finding.severity, finding.line, finding.text),
                      make('p', {}, `${capital(finding.happens)} [${finding.kind}].`),
                      make('p', {class: 'advice'}, `${capital(finding.change)}.`));
    (finding.severity === 'note' ? notes : box).append(card);
  }
  for (const sweep of data.sweeps) {
    for (const line of sweep.unsealed)
      notes.append(make('article', {class: 'problem note'}, lineTitle('note', line.line, line.text),
        make('p', {}, `${count(line.runs, 'power cut')} leave an environment with an invalid CRC; the boot loader cannot use it until a second run has finished.`)));
  }
  if (!box.children.length) box.append(make('p', {class: 'good'}, 'Nothing: there is no error and no warning.'));
  const noteCount = notes.children.length - 1;
  if (noteCount) {
    notes.firstChild.textContent = count(noteCount, 'note');
    box.append(notes);
  }
}

// The script with its findings.

function showScript() {
  const results = new Map(data.lines.map(line => [line.number, line]));
  const texts = data.text || data.lines.reduce((list, line) => { list[line.number - 1] = line.text; return list; }, []);
  const words = {clean: 'ran to the end', skipped: 'skipped', failed: 'failed', 'never-ran': 'never ran'};
  for (let i = 0; i < texts.length; ++i) {
    const number = i + 1, line = results.get(number);
    const notes = make('div', {class: 'notes'});
    let worst = '';
    const add = (severity, text) => {
      if (severity === 'error' || (severity === 'warning' && worst !== 'error')) worst = severity;
      notes.append(make('p', {class: severity}, make('span', {class: 'tag'}, severity), text));
    };
    for (const gap of unbootable) if (gap.line === number) add('error', `does not boot after a power cut at ${changesText(gap)}`);
    for (const gap of unbootable)
      if (selectorsOf(gap).includes(number)) add('error', `selects the slot that line ${gap.line} has not written yet: no boot after a power cut in that line`);
    for (const sweep of data.sweeps) for (const group of sweep.failures)
      if (group.line === number) add('error', `sweep ${sweep.kind}: ${group.happens} [${count(group.count, 'run')}]`);
    for (const finding of data.findings) if (finding.line === number) add(finding.severity, `${finding.happens} [${finding.kind}]`);
    if (line) {
      const room = line.room ? `; fills ${line.room.imageBlocks} of ${count(line.room.rangeBlocks, 'block')}, ${line.room.spareBlocks < 0 ? 'does not fit' : `tolerates ${count(line.room.spareBlocks, 'bad block')}`}` : '';
      notes.append(make('p', {class: 'result'}, words[line.result] + room));
    }
    for (const [at, text] of data.ubi) if (at === number) notes.append(make('p', {class: 'result'}, text));
    $('script').append(make('li', {id: `line${number}`, class: worst}, make('span', {class: 'n'}, String(number)),
                            make('span', {class: `code${line ? '' : ' comment'}`}, texts[i] ?? ''), notes));
  }
}

// The state that is shown.

const shown = {time: changeCount, block: 0, run: null};
let isQueued = false;

function queue() {
  if (isQueued) return;
  isQueued = true;
  requestAnimationFrame(() => { isQueued = false; drawAll(); });
}

function setTime(time) {
  shown.time = Math.max(0, Math.min(changeCount, time));
  if (history && shown.time > 0) shown.block = history.blocks[shown.time - 1];
  $('time').value = shown.time;
  queue();
}

function setBlock(block) {
  shown.block = Math.max(0, Math.min(blockCount - 1, block));
  queue();
}

function select(run) {
  shown.run = run;
  $('selected').hidden = run === null;
  if (run === null) return queue();
  $('selected-text').replaceChildren(make('strong', {}, `Sweep ${run.sweep.kind}, failure ${run.place + 1} of ${run.sweep.runsFailed.length}: ${describe(run)}`),
    make('br'), `${run.group.line ? `Line ${run.group.line}: ` : ''}${run.group.happens}.`);
  $('selected-command').replaceChildren(copyable(commandOf(run)));
  if (run.time !== null) setTime(run.time);
  for (const block of blocksOf(run)) setBlock(block);
  queue();
}

function step(by) {
  const list = shown.run.sweep.runsFailed;
  select(list[(shown.run.place + by + list.length) % list.length]);
}

// Drawing.

const colour = name => getComputedStyle(document.documentElement).getPropertyValue(name).trim();
const isDark = () => matchMedia('(prefers-color-scheme: dark)').matches && !matchMedia('print').matches;
const markColour = mark => data.looks[mark][isDark() ? 2 : 1];

/// Sets a canvas up for drawing in CSS pixels.
function prepare(canvas, width, height) {
  const scale = window.devicePixelRatio || 1;
  const [w, h] = [Math.round(width * scale), Math.round(height * scale)];
  if (canvas.width !== w || canvas.height !== h) {
    canvas.width = w;
    canvas.height = h;
  }
  const context = canvas.getContext('2d');
  context.setTransform(scale, 0, 0, scale, 0, 0);
  context.clearRect(0, 0, width, height);
  return context;
}

const THUMB = 8; // half the slider's thumb: its centre stays this far from the ends
const STRIP = 22;
const strips = [];

/// Where a time is on a strip of a width.
const xOf = (time, width) => THUMB + (width - 2 * THUMB) * (changeCount ? time / changeCount : 0);

function addStrip(name, description, draw, click) {
  const canvas = make('canvas', {role: 'img', 'aria-label': description, title: description});
  canvas.addEventListener('click', event => {
    const box = canvas.getBoundingClientRect();
    click(event.clientX - box.left, box.width);
  });
  $('strips').append(make('div', {class: 'strip'}, make('span', {class: 'name', 'aria-hidden': 'true'}, name), canvas));
  strips.push({canvas, draw});
}

const timeAt = (x, width) => Math.round((x - THUMB) / Math.max(1, width - 2 * THUMB) * changeCount);

function makeStrips() {
  const toTime = (x, width) => setTime(timeAt(x, width));
  if (history) {
    const used = [...new Set(data.changeLines.map(([, line]) => line))];
    addStrip('Script line', `Lines that make the changes: ${data.changeLines.map(([length, line]) => `line ${line} makes ${length}`).slice(0, 40).join(', ')}`, (context, width) => {
      let at = 0;
      for (const [length, line] of data.changeLines) {
        const left = xOf(at, width), right = xOf(at += length, width);
        context.fillStyle = colour(used.indexOf(line) % 2 ? '--line-b' : '--line-a');
        context.fillRect(left, 2, Math.max(1, right - left), STRIP - 4);
        const label = String(line);
        if (right - left > 8 * label.length + 4) {
          context.fillStyle = colour('--text');
          context.fillText(label, (left + right) / 2, STRIP / 2);
        }
      }
    }, toTime);
  }
  if (history && data.percentages.length)
    addStrip('Percentage', `Percentages up to ${Math.max(...data.percentages.map(([, percent]) => percent))}`, (context, width) => {
      const y = percent => STRIP - 2 - (STRIP - 4) * Math.max(0, Math.min(100, percent)) / 100;
      context.strokeStyle = colour('--accent');
      context.lineWidth = 2;
      context.beginPath();
      context.moveTo(xOf(0, width), y(0));
      let last = 0;
      for (const [time, percent] of data.percentages) {
        context.lineTo(xOf(time, width), y(last));
        context.lineTo(xOf(time, width), y(last = percent));
      }
      context.lineTo(xOf(changeCount, width), y(last));
      context.stroke();
    }, toTime);
  for (const sweep of data.sweeps) {
    const timed = sweep.runsFailed.filter(run => run.time !== null);
    if (sweep.unbootable.length)
      addStrip('Does not boot', `Power cuts after which the device does not boot: ${sweep.unbootable.map(gap => `${changesText(gap)}, line ${gap.line}`).join('; ')}`, (context, width) => {
        context.fillStyle = colour('--window');
        for (const gap of sweep.unbootable) {
          const left = xOf(gap.first - 0.5, width), right = xOf(gap.last + 0.5, width);
          context.fillRect(Math.min(left, width - 3), 4, Math.max(3, right - left), STRIP - 8);
        }
      }, toTime);
    addStrip(`Sweep ${sweep.kind}`, `Sweep ${sweep.kind}: ${count(sweep.done - sweep.held, 'failure')}`, (context, width) => {
      context.fillStyle = colour('--rule');
      context.fillRect(THUMB, STRIP / 2 - 1, width - 2 * THUMB, 2);
      context.fillStyle = colour('--bad');
      const seen = new Set();
      for (const run of timed) {
        const x = Math.round(xOf(run.time, width));
        if (!seen.has(x)) context.fillRect(x - 1, 3, 3, STRIP - 6);
        seen.add(x);
      }
    }, (x, width) => {
      const place = placeAfter(timed, timeAt(x, width), 0, timed.length, run => run.time);
      const near = [timed[place - 1], timed[place]].filter(run => run)
        .sort((a, b) => Math.abs(xOf(a.time, width) - x) - Math.abs(xOf(b.time, width) - x))[0];
      if (near && Math.abs(xOf(near.time, width) - x) <= 8) select(near);
      else toTime(x, width);
    });
  }
}

function drawStrips() {
  for (const {canvas, draw} of strips) {
    const width = canvas.clientWidth;
    const context = prepare(canvas, width, STRIP);
    context.font = '12px sans-serif';
    context.textAlign = 'center';
    context.textBaseline = 'middle';
    draw(context, width);
    context.fillStyle = colour('--play');
    context.fillRect(xOf(shown.time, width) - 1, 0, 2, STRIP);
  }
}

const map = {columns: 1, cell: 1, image: document.createElement('canvas')};

function layOutMap() {
  const width = $('map').parentElement.clientWidth;
  const wanted = Math.sqrt(blockCount * 2);
  let columns = 16;
  while (columns * 2 <= wanted * 1.5 && (width / (columns * 2) >= 4 || columns < 32)) columns *= 2;
  columns = Math.min(columns, blockCount);
  map.columns = columns;
  map.cell = Math.max(2, Math.min(26, Math.floor(width / columns)));
}

function drawMap() {
  layOutMap();
  const {columns, cell} = map;
  const rows = Math.ceil(blockCount / columns);
  const [width, height] = [columns * cell, rows * cell];
  const canvas = $('map');
  canvas.style.width = `${width}px`;
  canvas.style.height = `${height}px`;
  const context = prepare(canvas, width, height);
  const gap = cell > 4 ? 1 : 0;
  const colours = data.looks.map((look, mark) => markColour(mark));
  const counts = new Array(data.looks.length).fill(0);
  const at = block => [block % columns * cell, Math.floor(block / columns) * cell];
  // One scaled image: thousands of rectangles make the slider slow.
  const image = new ImageData(columns, rows);
  const states = new Uint8Array(blockCount);
  const bytes = colours.map(text => [1, 3, 5].map(place => parseInt(text.substr(place, 2), 16)));
  for (let block = 0; block < blockCount; ++block) {
    const state = states[block] = history.state(block, shown.time);
    ++counts[state];
    image.data.set(bytes[state], 4 * block);
    image.data[4 * block + 3] = 255;
  }
  const small = map.image;
  [small.width, small.height] = [columns, rows];
  small.getContext('2d').putImageData(image, 0, 0);
  context.imageSmoothingEnabled = false;
  context.drawImage(small, 0, 0, columns, rows, 0, 0, width, height);
  for (let column = 1; gap && column <= columns; ++column) context.clearRect(column * cell - gap, 0, gap, height);
  for (let row = 1; gap && row <= rows; ++row) context.clearRect(0, row * cell - gap, width, gap);
  for (let block = 0; block < blockCount; ++block) {
    const [state, [x, y]] = [states[block], at(block)];
    if (state >= BAD && cell >= 8) {
      // Not by colour alone.
      context.strokeStyle = colour('--back');
      context.lineWidth = Math.max(1, cell / 10);
      context.beginPath();
      context.moveTo(x + cell * .25, y + cell * .25);
      context.lineTo(x + cell * .7, y + cell * .7);
      if (state === BAD) {
        context.moveTo(x + cell * .7, y + cell * .25);
        context.lineTo(x + cell * .25, y + cell * .7);
      }
      context.stroke();
    }
  }
  const outline = (block, name, width) => {
    const [x, y] = at(block);
    context.strokeStyle = colour(name);
    context.lineWidth = width;
    const size = Math.max(cell - gap, 6);
    context.strokeRect(x + width / 2, y + width / 2, size - width, size - width);
  };
  if (shown.time > 0) outline(history.blocks[shown.time - 1], '--play', 2);
  outline(shown.block, '--accent', 2);
  if (shown.run) {
    for (const block of blocksOf(shown.run)) outline(block, '--bad', 3);
    if (shown.run.item.what === 'cut') outline(history.blocks[shown.run.number - 1], '--bad', 3);
  }
  $('legend').replaceChildren(...data.looks.map((look, mark) => {
    const square = make('span');
    square.style.background = colours[mark];
    return make('li', {}, square, `${look[0]} ${counts[mark]}`);
  }));
}

function showBlock() {
  const {block, time} = shown;
  const state = history.state(block, time);
  const programs = history.programs(block, time);
  const line = history.line(block, time);
  const rows = [['Block', `${block}, at ${hex(block * chip.eraseSize)}`], ['State', data.looks[state][0]],
    ['Script line', line ? `${line}: ${(data.lines.find(it => it.number === line) || {text: ''}).text}` : 'none so far'],
    ['Pages', `${programs.all} of ${pagesPerBlock} programmed`],
    ['ECC', programs.all ? `${programs.ecc} pages with ECC, ${programs.all - programs.ecc} raw` : 'nothing programmed'],
    ['OOB', programs.oob ? `programmed in ${count(programs.oob, 'page')}` : 'not programmed but for ECC']];
  const facts = history.facts.get(block);
  if (facts) {
    const [, corrected, failed, oob, content] = facts;
    rows.push(['After the run', (content || 'data of no known format') + (corrected + failed === 0 ? '; all pages read well'
      : `; normal reads: bits turned in ${count(corrected, 'page')}, ${count(failed, 'page')} unreadable`) +
      (oob ? `; other OOB than ECC in ${count(oob, 'page')}` : '')]);
  } else if (state === UNTOUCHED) {
    rows.push(['Content', 'as before the update']);
  }
  $('block').replaceChildren(...rows.flatMap(([name, value]) => [make('dt', {}, name), make('dd', {}, value)]));
  if (document.activeElement !== $('number')) $('number').value = block;
}

let outputShown = -1;

function showOutput() {
  const done = placeAfter(data.output, shown.time, 0, data.output.length, item => item[0]);
  if (done === outputShown) return;
  outputShown = done;
  const most = 400;
  const lines = data.output.slice(Math.max(0, done - most), done);
  $('output').replaceChildren(done > most ? `... ${done - most} earlier lines\n` : '',
    ...lines.map(([, , text]) => `${text}\n`),
    done === data.output.length && data.outputOmitted ? `... ${data.outputOmitted} more lines` : '');
  $('output').scrollTop = $('output').scrollHeight;
}

function showPercent() {
  const done = placeAfter(data.percentages, shown.time, 0, data.percentages.length, item => item[0]);
  const percent = done ? data.percentages[done - 1][1] : null;
  $('percent').value = Math.max(0, Math.min(100, percent ?? 0));
  $('percent-text').textContent = percent === null ? (data.percentages.length ? 'none reported yet' : 'none reported') : `${percent} %`;
  return percent;
}

function showNow(percent) {
  const {time, run} = shown;
  let text = `Change ${time} of ${changeCount}`;
  if (time > 0) {
    const page = history.pages[time - 1], block = history.blocks[time - 1], line = lineOfTime(time);
    const isErase = history.kinds[time - 1] & KIND_ERASE;
    const action = isErase ? `erases block ${block}` : `programs page ${page % pagesPerBlock} of block ${block}`;
    text += `: ${action} (${hex(page * chip.pageSize)})${line ? `, line ${line}` : ''}`;
  } else {
    text += ': the chip before the update';
  }
  if (percent !== null) text += `, ${percent} %`;
  if (run && run.item.what === 'cut' && run.number === time) text += `. Power is lost during this change, which gets as far as "${run.item.torn}"`;
  for (const gap of unbootable)
    if (time >= gap.first && time <= gap.last) text += '. A power cut here can leave a device that does not boot';
  $('now').textContent = `${text}.`;
  $('time').setAttribute('aria-valuetext', text);
  const line = lineOfTime(time);
  for (const old of document.querySelectorAll('#script .current')) old.classList.remove('current');
  if (line && $(`line${line}`)) $(`line${line}`).classList.add('current');
}

/// The map for those who cannot see it.
function fillTable() {
  if (!$('table').open) return;
  const rows = [];
  for (let block = 0; block < blockCount; ++block) {
    const state = history.state(block, shown.time), line = history.line(block, shown.time);
    const last = rows[rows.length - 1];
    if (last && last.state === state && last.line === line) last.end = block;
    else rows.push({begin: block, end: block, state, line});
  }
  const most = 1000;
  $('table').querySelector('tbody').replaceChildren(...rows.slice(0, most).map(row => make('tr', {},
    make('td', {}, row.begin === row.end ? String(row.begin) : `${row.begin} to ${row.end}`), make('td', {}, hex(row.begin * chip.eraseSize)),
    make('td', {}, data.looks[row.state][0]), make('td', {}, row.line ? String(row.line) : ''))),
    ...(rows.length > most ? [make('tr', {}, make('td', {colspan: 4}, `and ${rows.length - most} more rows`))] : []));
}

function drawAll() {
  drawStrips();
  if (!history) return;
  drawMap();
  showBlock();
  showOutput();
  showNow(showPercent());
  fillTable();
}

function listen() {
  $('time').addEventListener('input', event => {
    select(null);
    setTime(Number(event.target.value));
  });
  $('previous').addEventListener('click', () => step(-1));
  $('next').addEventListener('click', () => step(1));
  $('close').addEventListener('click', () => { select(null); $('time').focus(); });
  $('number').addEventListener('input', event => { if (event.target.value !== '') setBlock(Number(event.target.value)); });
  $('map').addEventListener('click', event => {
    const box = $('map').getBoundingClientRect();
    const column = Math.floor((event.clientX - box.left) / map.cell), row = Math.floor((event.clientY - box.top) / map.cell);
    if (row * map.columns + column < blockCount) setBlock(row * map.columns + column);
  });
  $('map').addEventListener('keydown', event => {
    const by = {ArrowLeft: -1, ArrowRight: 1, ArrowUp: -map.columns, ArrowDown: map.columns, Home: -Infinity, End: Infinity}[event.key];
    if (by === undefined) return;
    event.preventDefault();
    setBlock(shown.block + by);
  });
  $('table').addEventListener('toggle', queue);
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', queue);
  addEventListener('resize', queue);
  addEventListener('beforeprint', drawAll);
  addEventListener('afterprint', queue);
}

function showMore() {
  const run = data.run;
  const rows = [['Chip', `${blockCount} blocks of ${chip.eraseSize / 1024} KiB, pages of ${chip.pageSize} bytes and ${chip.oobSize} of OOB, ECC by the ${chip.ecc}`],
    ['Bad blocks', chip.badBlocks.length ? chip.badBlocks.join(', ') : 'none'],
    ['Updater', run.powerCut !== null ? `power lost during ${run.powerCut}` : run.signal !== null ? `ended by signal ${run.signal}` : `exit status ${run.exitStatus}`],
    ['Changes', String(changeCount)], ['Made by', data.tool]];
  $('more').append(...rows.flatMap(([name, value]) => [make('dt', {}, name), make('dd', {}, value)]));
  if (data.command) $('repeat').append(make('h3', {}, 'Repeat this run'), copyable(data.command));
}

showVerdict();
showProblems();
showScript();
showMore();
makeStrips();
if (history) {
  $('time').max = changeCount;
  $('number').max = blockCount - 1;
} else {
  for (const part of document.querySelectorAll('#run .columns, #run .axis, #table, #run .hint')) part.hidden = true;
}
listen();
const firstRun = data.sweeps.flatMap(sweep => sweep.runsFailed)[0];
if (unbootable.length) setTime(unbootable[0].first);
else if (firstRun) select(firstRun);
else setTime(changeCount);
drawAll();
