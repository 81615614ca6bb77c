// Maps times to positions on a line. Long gaps are shortened, so that a timeline of days stays readable; or to scale.

export class Scale {
  constructor(times, width, isToScale) {
    this.times = [...new Set(times)].sort((a, b) => a - b);
    const weight = (gap) => (isToScale ? gap : Math.log2(1 + gap / 1000));
    this.places = [0];
    for (let i = 1; i < this.times.length; ++i)
      this.places.push(this.places[i - 1] + weight(this.times[i] - this.times[i - 1]));
    this.width = width;
    this.factor = this.places.at(-1) > 0 ? width / this.places.at(-1) : 0;
  }

  // `time` is one of the given times.
  place(time) {
    return this.places[this.times.indexOf(time)] * this.factor;
  }

  // `count` evenly spaced positions with their times.
  ticks(count) {
    if (this.factor === 0) return [{ place: 0, time: this.times[0] }];
    return Array.from({ length: count }, (ignored, i) => {
      const place = (this.width * i) / (count - 1);
      const after = Math.max(1, this.places.findIndex((each) => each * this.factor >= place - 1e-6));
      const [from, to] = [this.places[after - 1] * this.factor, this.places[after] * this.factor];
      const share = to > from ? (place - from) / (to - from) : 0;
      return { place, time: this.times[after - 1] + share * (this.times[after] - this.times[after - 1]) };
    });
  }
}
