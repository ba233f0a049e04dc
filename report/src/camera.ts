// A view of reciprocal space without perspective: parallel rows stay parallel.

import { cross, dot, unit } from './vector';
import type { Vector } from './vector';

export class Camera {
    right: Vector = [1, 0, 0];
    up: Vector = [0, 1, 0];
    toViewer: Vector = [0, 0, 1];
    zoom = 1;

    /** \param radius  that fills the shorter edge of the picture at zoom 1, 1/Angstrom */
    constructor(readonly radius: number) {}

    /** Looks against a direction, another one upwards as far as that is possible. */
    lookAlong(direction: Vector, upwards: Vector): void {
        this.toViewer = unit(direction);
        let right = cross(upwards, this.toViewer);
        if (dot(right, right) < 1e-6) right = cross([0.3, 0.7, 0.2], this.toViewer);
        this.right = unit(right);
        this.up = cross(this.toViewer, this.right);
    }

    /** Turns the view as a ball under the pointer: pixels to the right and down, over the edge of the picture. */
    turn(x: number, y: number): void {
        const angle = 2.4;
        this.toViewer = unit(this.toViewer.map((v, i) => v - angle * x * this.right[i] + angle * y * this.up[i]) as Vector);
        this.right = unit(cross(this.up, this.toViewer));
        this.up = cross(this.toViewer, this.right);
    }

    zoomBy(factor: number): void {
        this.zoom = Math.min(40, Math.max(0.4, this.zoom * factor));
    }

    /** Pixels of one 1/Angstrom in a picture. */
    pixels(width: number, height: number): number {
        return (0.5 * Math.min(width, height) * this.zoom) / this.radius;
    }

    /** Place in a picture and height above its plane. */
    project(g: Vector, width: number, height: number): Vector {
        const pixels = this.pixels(width, height);
        return [0.5 * width + pixels * dot(g, this.right), 0.5 * height - pixels * dot(g, this.up), dot(g, this.toViewer)];
    }
}
